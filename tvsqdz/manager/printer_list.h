// What an open and a close do in the printer list.
#pragma once

#include "manager/manager_record.h"
#include "product/printer_list.h"

using product::PrinterList;
using product::PrinterListEntry;
static_assert(sizeof PrinterListEntry::printerName == kPrinterNameSize);

// What a manager had in the list of an earlier service.
struct FormerPlace {
    uint32_t printerIndex;
    bool ownedPrinter;
};

// Finds the manager's printer in the list or adds it; makes the master database and the list when the machine has none.
// The database mutex is held by the caller, printerName and clientKind are set. On success masterDatabase is open and
// serviceInstance, databaseName, printerIndex, ownerProcessId and, where it is known, driverName are set; a client of
// kind 6 has become the owner when there was none (ManagerOwnsPrinter). On failure nothing is open, and the last error
// is the answer that was the reason, or 0.
//
// former: null at an open. A manager that had a place may add its printer whatever its kind, under the number that it
// had if that is free, and becomes the owner only if it was the owner.
bool AttachPrinterDatabase(ManagerRecord* manager, const FormerPlace* former);

// What RenameInPrinterList did.
enum class Renaming {
    Done,
    UnknownPrinter, // no entry has the old name, or there is no list
    NameTaken,      // another entry has the new name already
    NotStored,      // the service refused the list
    Denied,         // ... to this user
    NoMemory
};
// Gives the first entry of the old name the new one. The database mutex is held by the caller.
Renaming RenameInPrinterList(const ManagerDatabase& master, const PrinterNameText& oldName,
                             const PrinterNameText& newName);

// Gives the ownership that ManagerOwnsPrinter tells of back. Takes the database mutex itself.
void ReleasePrinterOwnership(ManagerRecord* manager);

// What an open and a close do with the printer list. No state: the list is in the master database.
#pragma once

#include "manager/manager_record.h"
#include "product/guards.h"
#include "product/printer_list.h"

using product::PrinterList;
using product::PrinterListEntry;
static_assert(sizeof PrinterListEntry::printerName == kPrinterNameSize);

// The place of a manager in the list of an earlier service.
struct FormerPlace {
    uint32_t printerIndex;
    bool ownedPrinter;
};

// Finds the manager's printer in the list or adds it; creates the master database and the list when the machine has
// none. The caller holds the database mutex and has set printerName and clientKind. On success masterDatabase is open,
// printerDatabase too if it was there and ready, and serviceInstance, databaseName, printerIndex, ownerProcessId and,
// if known, driverName are set; a client of kind 6 has become the owner if there was none (ManagerOwnsPrinter). On
// failure nothing is open, and the last error is the service's answer that was the reason, or 0. An owner that was
// killed is none.
//
// former: null at an open. A manager that had a place may add its printer whatever its kind, gets its former number if
// that is free, and becomes the owner only if it was the owner.
bool AttachPrinterDatabase(ManagerRecord* manager, const FormerPlace* former);

// The results of RenameInPrinterList.
enum class Renaming {
    Done,
    UnknownPrinter, // no entry has the old name, or the list does not exist
    NameTaken,      // another entry already has the new name
    NotStored,      // the service did not take the list
    Denied,         // this user may not change the list
    NoMemory
};
// Renames the first entry with the old name. The caller holds the database mutex.
Renaming RenameInPrinterList(const ManagerDatabase& master, const PrinterNameText& oldName,
                             const PrinterNameText& newName);

// Acquires the database mutex in a close. False when it cannot be had; a process that ends goes on without it when the
// service does not answer.
bool AcquireInClose(const ManagerRecord* manager, MutexHold& lock);

// Releases the ownership of the printer (ManagerOwnsPrinter). Takes the database mutex itself.
void ReleasePrinterOwnership(ManagerRecord* manager);
void CloseOwnerEvent(ManagerRecord* manager);

// The printer list: which database belongs to which printer, and which process owns a printer. It is the value of the
// variable "PrinterDatabase" of the master database, shared by all processes.
#pragma once

#include "frame/manager_record.h"

#include <stddef.h>

// 560 bytes, stored.
struct PrinterListEntry {
    uint32_t index;                     // the printer's number, 1 or more, unique in the list
    uint32_t ownerProcessId;            // of the client of kind 6 that owns the printer; 0: none
    char printerName[kPrinterNameSize]; // the key, compared exactly
    char databaseName[32];              // "TVORSQD_DB" and the index
    char driverName[260];               // or empty
};
static_assert(sizeof(PrinterListEntry) == 560 && offsetof(PrinterListEntry, ownerProcessId) == 4 &&
              offsetof(PrinterListEntry, printerName) == 8 && offsetof(PrinterListEntry, databaseName) == 268 &&
              offsetof(PrinterListEntry, driverName) == 300);

// 8 bytes and the entries, stored.
struct PrinterList {
    uint32_t storedLength; // of what follows it: 4 + 560 for each entry
    uint32_t entryCount;
    PrinterListEntry entries[1]; // entryCount of them, in the order in which the printers were added
};
static_assert(sizeof(PrinterList) == 568 && offsetof(PrinterList, entryCount) == 4 &&
              offsetof(PrinterList, entries) == 8);

// Finds the manager's printer in the list or adds it; makes the master database and the list when the machine has none.
// The database mutex is held by the caller, printerName and clientKind are set. On success masterDatabase is open and
// databaseName, printerIndex, ownerProcessId and, where it is known, driverName are set; a client of kind 6 has become
// the owner when there was none (ManagerOwnsPrinter). On failure nothing is open, and the last error is the answer that
// was the reason, or 0.
bool AttachPrinterDatabase(ManagerRecord* manager);

// Gives the ownership that ManagerOwnsPrinter tells of back. Takes the database mutex itself.
void ReleasePrinterOwnership(ManagerRecord* manager);

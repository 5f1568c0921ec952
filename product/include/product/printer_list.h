// The printer list: which database belongs to which printer, and which process owns a printer. It is the value of a
// variable of the master database, shared by all processes. Any process may have written anything there, so every call
// checks what it reads. No state of its own.
#pragma once

#include <windows.h>

#include <stddef.h>
#include <stdint.h>
#include <string_view>

namespace product {

inline constexpr char kMasterDatabase[] = "TVORSQD_DB";
inline constexpr char kPrinterListVariable[] = "PrinterDatabase";

// 560 bytes, stored.
struct PrinterListEntry {
    uint32_t index;          // the printer's number, 1 or more, unique in the list
    uint32_t ownerProcessId; // of the client of kind 6 that owns the printer; 0: none
    char printerName[260];   // the key, compared exactly
    char databaseName[32];   // that of the master database and the index
    char driverName[260];    // or empty
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

// Whether the process that the entry names still owns the printer. The number says little: an owner that was killed
// leaves it there, and it may be another process's now. So an owner has an event open (OwnerName).
bool HasOwner(bool terminalServer, const PrinterListEntry& entry);

// The number of entries: those that are complete, but no more than the list's own count.
SIZE_T CountPrinterList(const BYTE* list, SIZE_T size);

// The texts of an entry; they point into the list. A driver that is not known is empty.
struct ListedPrinter {
    std::string_view name;
    std::string_view database;
    std::string_view driver;
};
// place: index of the entry, less than CountPrinterList().
ListedPrinter PrinterInList(const BYTE* list, SIZE_T place);

// The first entry of that printer, or with that database. All fields are empty when there is none.
ListedPrinter FindListedPrinter(const BYTE* list, SIZE_T size, std::string_view printer);
ListedPrinter FindListedDatabase(const BYTE* list, SIZE_T size, std::string_view database);

} // namespace product

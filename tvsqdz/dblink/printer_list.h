// The printer list: which database belongs to which printer, and which process owns a printer. It is the value of a
// variable of the master database, shared by all processes; any of them may have written anything there.
#pragma once

#include <windows.h>

#include <stddef.h>
#include <stdint.h>
#include <string_view>

namespace dblink {

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

// The name of the printer's database, in the list's own bytes; empty when the list does not have it. Only entries that
// are wholly there, and no more than the list counts, are looked at.
std::string_view DatabaseInPrinterList(const BYTE* list, SIZE_T size, std::string_view printer);
// The same of the printer's driver, which may not be known.
std::string_view DriverInPrinterList(const BYTE* list, SIZE_T size, std::string_view printer);
// The same of the printer whose database that is.
std::string_view PrinterInPrinterList(const BYTE* list, SIZE_T size, std::string_view database);

} // namespace dblink

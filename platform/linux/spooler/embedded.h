// The printers of the embedded spool, in <state directory>/spool.sqlite, mode 0644.
#pragma once

#include "spooler/back_end.h"
#include "store/database.h"

namespace oriel {

Database& SpoolStore();

// ERROR_SUCCESS or a code of DatabaseHold. Printers are in the order in which they were added.
DWORD ListPrinters(std::vector<Printer>* printers);
// ERROR_FILE_NOT_FOUND when the printer does not exist (any more). folded: the name from FoldName.
DWORD FindPrinter(const std::string& folded, int64_t* id);
DWORD ReadPrinter(int64_t id, Printer* printer);

// Within a hold that changes the database. ERROR_PRINTER_ALREADY_EXISTS; *id is that of the new printer.
DWORD AddPrinterRow(DatabaseHold& hold, const Printer& printer, const std::string& folded, int64_t* id);
// ERROR_FILE_NOT_FOUND.
DWORD DeletePrinterRow(DatabaseHold& hold, int64_t id);

} // namespace oriel

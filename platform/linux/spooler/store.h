// The embedded spool: the printers of the machine, in <state directory>/spool.sqlite, mode 0644.
#pragma once

#include "registry/database.h"

#include <string>
#include <vector>
#include <winspool.h>

namespace oriel {

// The texts that the spool keeps of a printer; kPrinterTexts (printer_record.h) says where a PRINTER_INFO_2A has them.
constexpr size_t kPrinterTextCount = 9;
constexpr size_t kPrinterName = 0;

struct Printer {
    int64_t id = 0;
    std::string texts[kPrinterTextCount];
    DWORD attributes = 0;

    const std::string& Name() const { return texts[kPrinterName]; }
};

Database& SpoolStore();

// ERROR_SUCCESS or a code of DatabaseHold. Printers are in the order in which they were added.
DWORD ListPrinters(std::vector<Printer>* printers);
// ERROR_FILE_NOT_FOUND when there is no such printer (any more). folded: the name as FoldName gives it.
DWORD FindPrinter(const std::string& folded, int64_t* id);
DWORD ReadPrinter(int64_t id, Printer* printer);

// Within a hold that changes. ERROR_PRINTER_ALREADY_EXISTS; *id is the new printer's.
DWORD AddPrinterRow(DatabaseHold& hold, const Printer& printer, const std::string& folded, int64_t* id);
// ERROR_FILE_NOT_FOUND.
DWORD DeletePrinterRow(DatabaseHold& hold, int64_t id);

} // namespace oriel

// Printers as the PRINTER_INFO_2A records of callers.
#pragma once

#include "spooler/back_end.h"

#include <span>
#include <string_view>
#include <winspool.h>

namespace oriel {

// As WriteRecords (record_space.h) does.
DWORD WritePrinterRecords(std::span<const Printer> printers, LPBYTE buffer, DWORD size, LPDWORD needed);

// A record that a caller wants to be added. ERROR_INVALID_PRINTER_NAME, ERROR_INVALID_PARAMETER.
DWORD ReadPrinterRecord(const PRINTER_INFO_2A& record, Printer* printer);

// Whether a printer may be called so.
bool IsPrinterName(std::string_view name);

// Whether a printer of this name is another machine's.
bool IsConnection(std::string_view name);

// A printer's key below the Printers key: its name with commas for backslashes.
std::string PrinterKeyName(std::string_view name);

} // namespace oriel

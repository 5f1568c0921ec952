// PRINTER_INFO_2A and JOB_INFO_1A records for callers: the records at the start of the caller's buffer, their texts at
// its end. No state.
#pragma once

#include "spooler/back_end.h"

#include <cstring>
#include <span>
#include <string_view>
#include <windef.h>
#include <winerror.h>
#include <winspool.h>

namespace oriel {

// Strings are placed from the end of the buffer.
struct StringSpace {
    LPBYTE end;

    LPSTR Put(std::string_view text) {
        end -= text.size() + 1;
        std::memcpy(end, text.data(), text.size());
        end[text.size()] = '\0';
        return reinterpret_cast<LPSTR>(end);
    }
};

// sizeOf(item): bytes of the item's record and texts. recordOf(item, index, strings): builds the record and places its
// texts. *needed: the bytes for all. ERROR_INSUFFICIENT_BUFFER, with the buffer untouched.
template <typename Item, typename SizeOf, typename RecordOf>
DWORD WriteRecords(std::span<const Item> items, LPBYTE buffer, DWORD size, LPDWORD needed, SizeOf sizeOf,
                   RecordOf recordOf) {
    size_t total = 0;
    for (const Item& item : items)
        total += sizeOf(item);
    *needed = static_cast<DWORD>(total);
    if (total == 0) return ERROR_SUCCESS;
    if (buffer == nullptr || size < total) return ERROR_INSUFFICIENT_BUFFER;
    StringSpace strings{buffer + size};
    for (size_t at = 0; at < items.size(); ++at) {
        const auto record = recordOf(items[at], at, strings);
        // The caller's buffer may be unaligned.
        std::memcpy(buffer + at * sizeof record, &record, sizeof record);
    }
    return ERROR_SUCCESS;
}

// Like WriteRecords.
DWORD WritePrinterRecords(std::span<const Printer> printers, LPBYTE buffer, DWORD size, LPDWORD needed);

// Reads a record to be added. ERROR_INVALID_PRINTER_NAME, ERROR_INVALID_PARAMETER.
DWORD ReadPrinterRecord(const PRINTER_INFO_2A& record, Printer* printer);

// True when a printer may have this name.
bool IsPrinterName(std::string_view name);

// True for the name of another machine's printer.
bool IsConnection(std::string_view name);

// A printer's key below the Printers key: its name with backslashes replaced by commas.
std::string PrinterKeyName(std::string_view name);

// Like WriteRecords. first: queue position of the first one, from 0.
DWORD WriteJobRecords(std::span<const Job> jobs, size_t first, const std::string& printer, LPBYTE buffer, DWORD size,
                      LPDWORD needed);

} // namespace oriel

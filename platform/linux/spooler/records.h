// Printers and jobs as the PRINTER_INFO_2A and JOB_INFO_1A records of callers: the records in front of the caller's
// buffer, their texts at its end.
#pragma once

#include "spooler/back_end.h"

#include <cstring>
#include <span>
#include <string_view>
#include <windef.h>
#include <winerror.h>
#include <winspool.h>

namespace oriel {

// Strings fill the buffer from its end.
struct StringSpace {
    LPBYTE end;

    LPSTR Put(std::string_view text) {
        end -= text.size() + 1;
        std::memcpy(end, text.data(), text.size());
        end[text.size()] = '\0';
        return reinterpret_cast<LPSTR>(end);
    }
};

// sizeOf(item): bytes of the item's record and texts. recordOf(item, index, strings): the record, its texts put.
// *needed: the bytes that all take. ERROR_INSUFFICIENT_BUFFER, with the buffer untouched.
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
        // The caller's buffer need not be aligned.
        std::memcpy(buffer + at * sizeof record, &record, sizeof record);
    }
    return ERROR_SUCCESS;
}

// As WriteRecords does.
DWORD WritePrinterRecords(std::span<const Printer> printers, LPBYTE buffer, DWORD size, LPDWORD needed);

// A record that a caller wants to be added. ERROR_INVALID_PRINTER_NAME, ERROR_INVALID_PARAMETER.
DWORD ReadPrinterRecord(const PRINTER_INFO_2A& record, Printer* printer);

// Whether a printer may be called so.
bool IsPrinterName(std::string_view name);

// Whether a printer of this name is another machine's.
bool IsConnection(std::string_view name);

// A printer's key below the Printers key: its name with commas for backslashes.
std::string PrinterKeyName(std::string_view name);

// As WriteRecords does. first: place of the first one in the queue, from 0.
DWORD WriteJobRecords(std::span<const Job> jobs, size_t first, const std::string& printer, LPBYTE buffer, DWORD size,
                      LPDWORD needed);

} // namespace oriel

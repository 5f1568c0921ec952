// How the spooler's calls lay records into a caller's buffer: the records in front, their texts at the end.
#pragma once

#include <cstring>
#include <span>
#include <string_view>
#include <windef.h>
#include <winerror.h>

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

} // namespace oriel

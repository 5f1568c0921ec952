#include "dblink/printer_list.h"

#include <string.h>

namespace dblink {

namespace {

constexpr SIZE_T kHeader = offsetof(PrinterList, entries);

// A field of any address, which may have no NUL.
std::string_view FieldText(const BYTE* field, SIZE_T size) {
    const auto* text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, size)};
}

} // namespace

std::string_view DatabaseInPrinterList(const BYTE* list, SIZE_T size, std::string_view printer) {
    if (size < kHeader) return {};
    uint32_t count = 0;
    memcpy(&count, list + offsetof(PrinterList, entryCount), sizeof count);
    const SIZE_T whole = (size - kHeader) / sizeof(PrinterListEntry);
    for (SIZE_T i = 0; i < count && i < whole; ++i) {
        const BYTE* entry = list + kHeader + i * sizeof(PrinterListEntry);
        if (FieldText(entry + offsetof(PrinterListEntry, printerName), sizeof PrinterListEntry::printerName) == printer)
            return FieldText(entry + offsetof(PrinterListEntry, databaseName), sizeof PrinterListEntry::databaseName);
    }
    return {};
}

} // namespace dblink

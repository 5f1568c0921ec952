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

// Of the entry whose field at keyAt is key, the other field.
std::string_view Find(const BYTE* list, SIZE_T size, SIZE_T keyAt, SIZE_T keySize, std::string_view key, SIZE_T otherAt,
                      SIZE_T otherSize) {
    if (size < kHeader) return {};
    uint32_t count = 0;
    memcpy(&count, list + offsetof(PrinterList, entryCount), sizeof count);
    const SIZE_T whole = (size - kHeader) / sizeof(PrinterListEntry);
    for (SIZE_T i = 0; i < count && i < whole; ++i) {
        const BYTE* entry = list + kHeader + i * sizeof(PrinterListEntry);
        if (FieldText(entry + keyAt, keySize) == key) return FieldText(entry + otherAt, otherSize);
    }
    return {};
}

constexpr SIZE_T kPrinterAt = offsetof(PrinterListEntry, printerName);
constexpr SIZE_T kPrinterSize = sizeof PrinterListEntry::printerName;
constexpr SIZE_T kDatabaseAt = offsetof(PrinterListEntry, databaseName);
constexpr SIZE_T kDatabaseSize = sizeof PrinterListEntry::databaseName;

} // namespace

std::string_view DatabaseInPrinterList(const BYTE* list, SIZE_T size, std::string_view printer) {
    return Find(list, size, kPrinterAt, kPrinterSize, printer, kDatabaseAt, kDatabaseSize);
}

std::string_view PrinterInPrinterList(const BYTE* list, SIZE_T size, std::string_view database) {
    return Find(list, size, kDatabaseAt, kDatabaseSize, database, kPrinterAt, kPrinterSize);
}

} // namespace dblink

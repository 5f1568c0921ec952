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

// Of the first entry whose field at keyAt is key; null when the list has none.
const BYTE* FindEntry(const BYTE* list, SIZE_T size, SIZE_T keyAt, SIZE_T keySize, std::string_view key) {
    if (size < kHeader) return nullptr;
    uint32_t count = 0;
    memcpy(&count, list + offsetof(PrinterList, entryCount), sizeof count);
    const SIZE_T whole = (size - kHeader) / sizeof(PrinterListEntry);
    for (SIZE_T i = 0; i < count && i < whole; ++i) {
        const BYTE* entry = list + kHeader + i * sizeof(PrinterListEntry);
        if (FieldText(entry + keyAt, keySize) == key) return entry;
    }
    return nullptr;
}

const BYTE* EntryOfPrinter(const BYTE* list, SIZE_T size, std::string_view printer) {
    return FindEntry(list, size, offsetof(PrinterListEntry, printerName), sizeof PrinterListEntry::printerName, printer);
}

} // namespace

std::string_view DatabaseInPrinterList(const BYTE* list, SIZE_T size, std::string_view printer) {
    const BYTE* entry = EntryOfPrinter(list, size, printer);
    if (entry == nullptr) return {};
    return FieldText(entry + offsetof(PrinterListEntry, databaseName), sizeof PrinterListEntry::databaseName);
}

std::string_view DriverInPrinterList(const BYTE* list, SIZE_T size, std::string_view printer) {
    const BYTE* entry = EntryOfPrinter(list, size, printer);
    if (entry == nullptr) return {};
    return FieldText(entry + offsetof(PrinterListEntry, driverName), sizeof PrinterListEntry::driverName);
}

std::string_view PrinterInPrinterList(const BYTE* list, SIZE_T size, std::string_view database) {
    const BYTE* entry = FindEntry(list, size, offsetof(PrinterListEntry, databaseName),
                                  sizeof PrinterListEntry::databaseName, database);
    if (entry == nullptr) return {};
    return FieldText(entry + offsetof(PrinterListEntry, printerName), sizeof PrinterListEntry::printerName);
}

} // namespace dblink

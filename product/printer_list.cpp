#include "product/printer_list.h"

#include "product/guards.h"
#include "product/object_names.h"

#include <string.h>

namespace product {

namespace {

constexpr SIZE_T kHeader = offsetof(PrinterList, entries);

// A field at any address. It may lack a NUL.
std::string_view FieldText(const BYTE* field, SIZE_T size) {
    const auto* text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, size)};
}

ListedPrinter FindListed(const BYTE* list, SIZE_T size, std::string_view ListedPrinter::*key, std::string_view value) {
    const SIZE_T count = CountPrinterList(list, size);
    for (SIZE_T i = 0; i < count; ++i)
        if (const ListedPrinter printer = PrinterInList(list, i); printer.*key == value) return printer;
    return {};
}

} // namespace

bool HasOwner(bool terminalServer, const PrinterListEntry& entry) {
    if (entry.ownerProcessId == 0) return false;
    const auto* database = reinterpret_cast<const BYTE*>(entry.databaseName);
    const KernelName name = OwnerName(terminalServer, FieldText(database, sizeof entry.databaseName));
    const KernelHandle open(OpenEventA(SYNCHRONIZE, FALSE, name.text));
    return open || GetLastError() != ERROR_FILE_NOT_FOUND; // what cannot be told counts as there
}

SIZE_T CountPrinterList(const BYTE* list, SIZE_T size) {
    if (size < kHeader) return 0;
    uint32_t count = 0;
    memcpy(&count, list + offsetof(PrinterList, entryCount), sizeof count);
    const SIZE_T whole = (size - kHeader) / sizeof(PrinterListEntry);
    return count < whole ? count : whole;
}

ListedPrinter PrinterInList(const BYTE* list, SIZE_T place) {
    const BYTE* entry = list + kHeader + place * sizeof(PrinterListEntry);
    return {
        .name = FieldText(entry + offsetof(PrinterListEntry, printerName), sizeof PrinterListEntry::printerName),
        .database = FieldText(entry + offsetof(PrinterListEntry, databaseName), sizeof PrinterListEntry::databaseName),
        .driver = FieldText(entry + offsetof(PrinterListEntry, driverName), sizeof PrinterListEntry::driverName),
    };
}

ListedPrinter FindListedPrinter(const BYTE* list, SIZE_T size, std::string_view printer) {
    return FindListed(list, size, &ListedPrinter::name, printer);
}

ListedPrinter FindListedDatabase(const BYTE* list, SIZE_T size, std::string_view database) {
    return FindListed(list, size, &ListedPrinter::database, database);
}

} // namespace product

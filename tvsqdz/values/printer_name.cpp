// A printer may be renamed by any process; the database tells.
#include "values/printer_name.h"

#include <string.h>

namespace {

constexpr char kPrinterNameVariable[] = "PrinterName";

bool IsName(const PrinterNameText& name) {
    return name.text[0] != '\0' && memchr(name.text, '\0', sizeof name.text) != nullptr;
}

} // namespace

bool ReadStoredPrinterName(const ManagerDatabase& database, PrinterNameText* name) {
    DWORD size = 0;
    return ReadVariable(database, kPrinterNameVariable, name->text, sizeof name->text, &size) == Answer::Done &&
           IsName(*name);
}

PrinterNameText RefreshedPrinterName(ManagerRecord* manager) {
    PrinterNameText name;
    if (!ReadStoredPrinterName(manager->printerDatabase, &name)) return CurrentPrinterName(manager);
    ChangePrinterName(manager, name);
    return name;
}

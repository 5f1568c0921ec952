// Reads only; a change in the registry is seen by the managers that are opened after it.
#include "manager/printer_registration.h"

#include "base/memory.h"
#include "base/system.h"
#include "product/guards.h"

#include <winspool.h>

#include <string.h>

namespace {

// Of a model's key name, its NUL included; longer ones are no models.
constexpr DWORD kModelNameSize = 32;

// The spooler knows printers that have no key, such as connections to another machine's.
char* DriverNameFromSpooler(char* printerName) {
    const PrinterHandle printer = OpenSpoolerPrinter(printerName);
    if (!printer) return nullptr;
    DWORD needed = 0;
    GetPrinterA(printer.Get(), 2, nullptr, 0, &needed);
    if (needed < sizeof(PRINTER_INFO_2A)) return nullptr;
    const HeapBlock block(needed);
    if (block.memory == nullptr || !GetPrinterA(printer.Get(), 2, block.memory, needed, &needed)) return nullptr;
    const char* driver = reinterpret_cast<const PRINTER_INFO_2A*>(block.memory)->pDriverName;
    return driver != nullptr ? CopyText(driver) : nullptr;
}

} // namespace

bool LookUpDriverName(ManagerRecord* manager) {
    if (manager->driverName != nullptr) return true;
    const RegistryKey printers = OpenKey(HKEY_LOCAL_MACHINE, kPrintersKey, KEY_READ);
    if (!printers) return false;
    LSTATUS error = ERROR_SUCCESS;
    const RegistryKey printer = OpenKey(printers.Get(), PrinterKeyName(manager->printerName).name, KEY_READ, &error);
    if (printer)
        manager->driverName = CopyRegistryText(printer.Get(), kDriverValue);
    else if (error == ERROR_FILE_NOT_FOUND)
        manager->driverName = DriverNameFromSpooler(manager->printerName);
    return manager->driverName != nullptr;
}

bool IsUnsupportedPrinter(const char* printerName) {
    const RegistryKey printers = OpenKey(HKEY_LOCAL_MACHINE, kPrintersKey, KEY_READ);
    if (!printers) return false;
    const RegistryKey printer = OpenKey(printers.Get(), PrinterKeyName(printerName).name, KEY_READ);
    if (!printer) return false;
    const OwnedText driver(CopyRegistryText(printer.Get(), kDriverValue));
    if (driver.text == nullptr) return true;

    const RegistryKey models = OpenKey(HKEY_LOCAL_MACHINE, kModelsKey, KEY_READ);
    if (!models) return true;
    DWORD count = 0;
    if (RegQueryInfoKeyA(models.Get(), nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr) != ERROR_SUCCESS ||
        count == 0)
        return false;
    for (DWORD i = 0; i < count; ++i) {
        char name[kModelNameSize];
        DWORD nameSize = sizeof name;
        if (RegEnumKeyExA(models.Get(), i, name, &nameSize, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            continue; // a longer name, or a key that went meanwhile
        if (lstrcmpiA(name, driver.text) != 0) continue;
        const RegistryKey model = OpenKey(models.Get(), name, KEY_READ);
        if (model && OpenKey(model.Get(), kModelVariablesKey, KEY_READ)) return false;
    }
    return true;
}

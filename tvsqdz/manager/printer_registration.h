// What the registry and the spooler know of a printer: its driver, and whether that is a registered model.
#pragma once

#include "manager/manager_record.h"

#include <windows.h>

// The key below which every printer has one of its own.
inline constexpr char kPrintersKey[] = "System\\CurrentControlSet\\Control\\Print\\Printers";

// The name of a printer's key: the printer's name with every backslash a comma. Double-byte characters stay whole.
struct DriverDataKey {
    char name[kPrinterNameSize];
};
DriverDataKey DriverDataKeyName(const char* printerName);

// True when the manager's driverName is set on return.
bool LookUpDriverName(ManagerRecord* manager);

// The key that has one subkey for each registered model, named as the printer driver; and the subkey of that which
// holds the model's variables.
inline constexpr char kModelsKey[] = "SOFTWARE\\Tavik\\Oriel\\Printers\\";
inline constexpr char kModelVariablesKey[] = "Status Variables";

// True when the printer's driver is not a registered model. A printer whose key cannot be opened counts as supported,
// and so does every printer while no model is registered.
bool IsUnsupportedPrinter(const char* printerName);

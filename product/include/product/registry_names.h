// Names of registry keys and values that more than one program knows. All keys are below HKEY_LOCAL_MACHINE. No state.
#pragma once

#include <tvsqdz.h>
#include <windows.h>

// The product's key, the value that names the installation directory (which ends with a backslash), and the key that
// has a subkey for each registered model, named like the printer driver (product/model_variables.h).
inline constexpr char kProductKey[] = "SOFTWARE\\Tavik\\Oriel";
inline constexpr char kDirectoryValue[] = "DIRPATH";
inline constexpr char kModelsKey[] = "SOFTWARE\\Tavik\\Oriel\\Printers";
inline constexpr char kModelVariablesKey[] = "Status Variables"; // below a model's key

// The spooler's key, below which every printer has a key of its own, and values there.
inline constexpr char kPrintersKey[] = "System\\CurrentControlSet\\Control\\Print\\Printers";
inline constexpr char kDriverValue[] = "Printer Driver";

// The name of a printer's key: the printer's name with every backslash a comma. Double-byte characters stay whole.
struct PrinterKey {
    char name[TVS_PRINTER_NAME_MAX + 1];
};
PrinterKey PrinterKeyName(const char* printerName);

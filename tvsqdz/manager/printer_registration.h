// What the registry and the spooler know of a printer: its driver, and whether that is a registered model.
#pragma once

#include "manager/manager_record.h"
#include "product/registry_names.h"

#include <windows.h>

// True when the manager's driverName is set on return.
bool LookUpDriverName(ManagerRecord* manager);

// True when the printer's driver is not a registered model. A printer whose key cannot be opened counts as supported,
// and so does every printer while no model is registered.
bool IsUnsupportedPrinter(const char* printerName);

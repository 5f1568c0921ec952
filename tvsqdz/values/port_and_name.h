// The current name of a printer, which any process may have changed. No state.
#pragma once

#include "manager/manager_record.h"

// The value of "PrinterName" in a printer's database; false when it cannot be read or is not a valid name.
bool ReadStoredPrinterName(const ManagerDatabase& database, PrinterNameText* name);

// Copies "PrinterName" of the database into the manager and returns it. When it cannot be read or is not a valid name,
// the manager keeps its name.
PrinterNameText RefreshedPrinterName(ManagerRecord* manager);

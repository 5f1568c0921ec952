// The name that a printer has now.
#pragma once

#include "manager/manager_record.h"

// What "PrinterName" of a printer's database says; false when it cannot be read or is no name.
bool ReadStoredPrinterName(const ManagerDatabase& database, PrinterNameText* name);

// Takes over into the manager what "PrinterName" of its database says, and answers it. What cannot be read or is no
// name leaves the one that the manager had.
PrinterNameText RefreshedPrinterName(ManagerRecord* manager);

// Jobs of an opened printer: what commands and views do with them. No state.
#pragma once

#include "base/opened_printer.h"
#include "base/spooler.h"

#include <cstdint>
#include <optional>

// Each throws Failure.

PrinterHandle SpoolerPrinterOf(const OpenedPrinter& printer);
// Of a variable by its name.
Bytes ValueOf(const OpenedPrinter& printer, const char* name);
// The number of the job in "SendingJobInfo", "PrintingJobInfo"; 0: none.
uint32_t JobIn(const OpenedPrinter& printer, const char* variable);
// None: the spooler does not have it.
std::optional<SpoolerJob> FindJob(const OpenedPrinter& printer, uint32_t id);

// Pauses or resumes the job that is being sent to the printer, and returns its number.
uint32_t PauseSentJob(const OpenedPrinter& printer, bool pause);
void CancelJob(const OpenedPrinter& printer, uint32_t id);

// Many printer sides in one process, a thread for each: the printers are those of a table, which the process that has
// started this one changes at any time (product/hosted_printers.h). State: the records of the host.
#pragma once

#include <windows.h>

#include <string>

// Serves until stop is set. kStopped, or kCannotBegin (network_side.h) after the reason was logged.
int ServeHostedPrinters(const std::string& tableName, HANDLE stop);

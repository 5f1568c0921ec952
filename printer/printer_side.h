// The printer side of one printer: it keeps the printer's variables in the status database true, and carries out the
// requests that reach it, by the request variables or by the mailbox of forwarded requests.
#pragma once

#include "device.h"

#include <string>

struct PrinterSideOptions {
    std::string printer; // ANSI
    std::string port;    // the name for "Port", unless the device has the variable; may be empty
};

// Serves until stop is set. One message to standard error for what goes wrong, not for each time. False when it cannot
// begin, which the last error tells.
bool ServePrinter(const PrinterSideOptions& options, const Device& device, HANDLE stop);

// The printer side of one printer: it keeps the printer's variables in the status database true, and carries out the
// requests that reach it, by the request variables or by the mailbox of forwarded requests.
#pragma once

#include "device.h"

#include <string>

struct PrinterSideOptions {
    std::string printer; // ANSI
    std::string port;    // the name for "Port", unless the device has the variable; may be empty
};

// Serves until stop is set. What goes wrong is logged. False when it cannot begin; the last error says why.
bool ServePrinter(const PrinterSideOptions& options, const Device& device, HANDLE stop);

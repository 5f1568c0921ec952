// The printer side of one printer: it keeps the printer's variables in the status database up to date, and carries out
// requests from the request variables and from the mailbox of forwarded requests. State: the printer side's record.
#pragma once

#include "device.h"

#include <string>

struct PrinterSideOptions {
    std::string printer;        // ANSI
    std::string port;           // the name for "Port", unless the device has the variable; may be empty
    bool ofPrintServer = false; // the printer is a queue of a print server, whose jobs are followed
};

// Serves until stop is set. What goes wrong is logged. False when it cannot begin; the last error says why.
bool ServePrinter(const PrinterSideOptions& options, const Device& device, HANDLE stop);

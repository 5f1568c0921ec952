// The demo printer: the example model, and a device that plays the example script. No state.
#pragma once

#include <string>

struct DemoPrinter {
    std::string name;   // UTF-8
    std::string script; // the path of its own copy, UTF-8
    // Its access control list, unless it has one: everybody may print, and the user of `up` may do everything.
    std::string accessList;
};

// Creates what is missing: the model in the registry, a copy of the script in the state directory, the printer.
// Existing parts stay as they are, since the user may have changed them. Throws Failure.
DemoPrinter EnsureDemoPrinter();

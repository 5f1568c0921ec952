// A printer to play with: the example model, and a device that plays the example script.
#pragma once

#include <string>

struct DemoPrinter {
    std::string name;   // UTF-8
    std::string script; // the path of its own copy, UTF-8
    // The access control list that it gets unless it has one: all may print, and its user may do everything.
    std::string accessList;
};

// Makes what is missing of it: the model in the registry, a copy of the script in the state directory, the printer.
// What is there is left as it is, so that its user may change it. Throws Failure.
DemoPrinter EnsureDemoPrinter();

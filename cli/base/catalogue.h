// The status variables of a printer, as the command shows them: the built-in ones (product/variables.h), and what the
// printer's model adds or replaces in the registry. No state.
#pragma once

#include "product/variable_types.h"

#include <cstdint>
#include <string>
#include <vector>

struct Variable {
    std::string name;  // ANSI
    uint32_t type = 0; // SVT_NUMBER and the like
    uint32_t size = 0; // of the value in bytes; 0: it varies. Of a queue: of one item
    uint32_t room = 0; // bytes that it takes in a composite
    bool readable = true;
    bool fromModel = false;
    std::string memberList;           // of a composite, as it is stored
    std::vector<std::string> members; // the names of that list, in their order
};

// "number", "composite"; "unknown" for a code that is not a type.
const char* TypeName(uint32_t type);

// Sorted as the library sorts them. An empty driver gives the built-in ones alone.
std::vector<Variable> PrinterVariables(const std::string& driver);
// Null when the printer has no such variable. Names compare exactly.
const Variable* FindVariable(const std::vector<Variable>& variables, const std::string& name);

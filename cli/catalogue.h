// The status variables of a printer: the built-in ones, and what its model adds or replaces in the registry.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class VariableType { Byte, Word, Number, String, Variable, Record, Composite, Queue, Unknown };

struct Variable {
    std::string name; // ANSI
    VariableType type = VariableType::Unknown;
    uint32_t size = 0; // of the value in bytes; 0: it varies. Of a queue: of one item
    uint32_t room = 0; // bytes that it takes in a composite
    bool readable = true;
    bool fromModel = false;
    std::vector<std::string> members; // of a composite, in their order
};

const char* TypeName(VariableType type);

// Sorted as the library sorts them. driver may be empty: the built-in ones only.
std::vector<Variable> PrinterVariables(const std::string& driver);
const Variable* FindVariable(const std::vector<Variable>& variables, const std::string& name);

// Changes of a printer as a script for a printer side (docs/printer.md), which plays them again. Only what the printer
// itself tells is written: variables of its model, and built-in ones whose values come from the device. Composites
// follow from their members. State: the object's.
#pragma once

#include "base/catalogue.h"

#include <cstdint>
#include <string>
#include <vector>

namespace views {

class ScriptWriter {
public:
    // Of the printer.
    explicit ScriptWriter(const std::string& driver) : m_variables(PrinterVariables(driver)) {}

    // Whether the variable, UTF-8, can be in a script.
    bool Takes(const std::string& variable) const;
    // Statements for a value that the printer has at that time: a wait, if it is later than the one before, and a set.
    // value: as the library gives it.
    std::string Set(const std::string& variable, const std::vector<uint8_t>& value, int64_t atMs);
    std::string Wait(int64_t atMs);

private:
    const Variable* Find(const std::string& variable) const;

    std::vector<Variable> m_variables;
    int64_t m_atMs = 0; // 0: nothing was written
};

// "# TEXT", in ASCII, on one line.
std::string ScriptComment(const std::string& text);

} // namespace views

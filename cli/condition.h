// Conditions on the value of a variable, as a user types them: TonerLevel<20, PrinterExtStatus&0x100,
// Port.portName=LPT1:.
#pragma once

#include "opened_printer.h"

struct Condition {
    enum class Comparison { Equal, Different, Less, LessOrEqual, Greater, GreaterOrEqual, AnyBit };
    const Variable* variable = nullptr;
    std::string field; // of a record; empty: the value itself
    Comparison comparison = Comparison::Equal;
    std::string operand; // UTF-8, without quotes
};

// Throws Failure (Exit::Usage), also when the variable has no such field or no value that can be compared so.
Condition ParseCondition(const OpenedPrinter& printer, const std::string& text);

// A number that is not known (-1) is equal to "unknown" and to -1, different from all others, and neither less nor
// greater.
bool Holds(const Condition& condition, const Decoded& value);

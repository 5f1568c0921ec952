// Conditions on the value of a variable, as a user types them: TonerLevel<20, PrinterExtStatus&0x100,
// Port.portName=LPT1:.
#pragma once

#include "base/opened_printer.h"

struct Condition {
    enum class Comparison { Equal, Different, Less, LessOrEqual, Greater, GreaterOrEqual, AnyBit };
    const Variable* variable = nullptr;
    std::string field; // of a record; empty: the value itself
    Comparison comparison = Comparison::Equal;
    std::string operand; // UTF-8, without quotes
};

// Throws Failure (Exit::Usage) for a text that is not a condition, for a field that the variable does not have, and for
// a value that cannot be compared in this way.
Condition ParseCondition(const OpenedPrinter& printer, const std::string& text);

// An unknown number (-1) equals "unknown" and -1 and differs from all others. It is neither less nor greater than any.
bool Holds(const Condition& condition, const Decoded& value);

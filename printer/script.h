// Parses the text of a script into statements. docs/printer.md has the language. No state.
#pragma once

#include "device.h"

#include <string_view>

// How requests are answered.
struct Rule {
    DWORD delayMs = 0;
    LONG result = 0;
    bool silent = false;
    bool sets = false; // this value, at the answer, in place of what would be done otherwise
    DeviceValue value{};
};

enum class Verb { Set, Initially, Wait, OnRead, OnWrite, OnRefresh, Pages, Jobs, Queue, Append, Repeat };

struct Statement {
    Verb verb;
    DeviceValue value{};    // Set, Initially, Append
    DWORD number = 0;       // Pages: how many; Jobs: milliseconds a page, or kHoldJobs
    DeviceQueue queue{};    // Queue
    ULONGLONG waitMs = 0;   // Wait
    std::string variable{}; // OnRead, OnWrite: the name, or "*"
    Rule rule{};            // OnRead, OnWrite, OnRefresh
};

// The statements in the order of their lines. name: of the script, for origins and errors. errors: "NAME:LINE: what is
// wrong", one for each wrong line; if there are any, do not use the result.
std::vector<Statement> ReadScript(std::string_view text, const std::string& name, std::vector<std::string>* errors);

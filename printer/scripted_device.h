// A printer that runs a script: its values and its behaviour follow the statements over time. State: its record.
#pragma once

#include "script.h"

#include <map>

struct PendingAnswer {
    ULONGLONG due = 0;
    DeviceAnswer answer{};
};

struct ScriptedPrinter {
    std::vector<Statement> statements;
    DWORD speed = 1;    // runs the script so many times faster
    DWORD pageMs = 300; // of a page of a job, in the script's time; kHoldJobs

    // The script's own time is now * speed.

    SIZE_T at = 0;     // the statement that is next
    ULONGLONG due = 0; // of the next statement, in the script's time
    bool started = false;
    bool waited = false; // for the statement that is next
    std::map<std::string, DeviceValue> values;
    std::map<std::string, Rule> readRules; // "*": of all others
    std::map<std::string, Rule> writeRules;
    Rule refreshRule;
    std::vector<PendingAnswer> pending;
    DeviceLink link; // always up
};

// The device lives as long as the printer.
Device DeviceOf(ScriptedPrinter& printer);

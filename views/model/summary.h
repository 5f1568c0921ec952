// A printer at a glance, as the views show it: its state in words, what fills and empties it, its jobs. No state.
//
// It is made from the values of the variables, which anybody may have written: texts are made printable, and numbers
// that make no sense are left out.
#pragma once

#include "model/source.h"

#include <span>

namespace views {

using PrinterKey = Printers::key_type; // machine, name

// Toner, ink, a tray.
struct Supply {
    std::string name; // "Toner", "tray 2"
    int percent = -1; // 0 to 100; -1: not known
    bool low = false; // needs attention
};

struct Job {
    uint32_t id = 0;
    std::string title;
    std::string owner;
    std::string state; // "printing", "sending", "in the printer", "waiting"
};

struct Summary {
    product::Severity severity = product::Severity::None;
    std::string state; // "printing", "paper jam, unit 2"
    std::string panel; // what the printer's own display says
    std::vector<Supply> supplies;
    std::vector<Job> jobs; // the one that prints first
    std::optional<uint32_t> pages;
    int64_t changedMs = 0; // of the latest write of a variable that the state is made from; 0: never
};

Summary SummaryOf(const Printer& printer);
// The variables that the state is made from.
std::span<const char* const> StateVariables();
// Machine, name, driver, device, state, severity, stale, trouble, changed, panel, pages, supplies, jobs.
Json SummaryJson(const Printer& printer, const Summary& summary);
// The same with the time of the last answer and the values of all variables.
Json PrinterJson(const Printer& printer);

} // namespace views

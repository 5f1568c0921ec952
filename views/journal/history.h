// What people ask of the journal: when, since when, in which state for how long. No state.
#pragma once

#include "journal/journal.h"

#include <map>
#include <string>

namespace views {

// "90s", "30min", "2h", "7d" before now, or a time "2026-11-24", "2026-11-24T08:15", "2026-11-24T08:15:00.123Z", in
// UTC. Throws Failure (Exit::Usage).
int64_t ParseSince(const std::string& text, int64_t now);

// A line for people, without the time; a record for programs.
std::string EntryText(const Entry& entry);
Json EntryJson(const Entry& entry);

// Of a printer in a day (UTC).
struct DayStates {
    std::map<std::string, int64_t> ms; // by state; "not recorded"
    int jams = 0;                      // how often one began
};
using States = std::map<std::pair<std::string, std::string>, DayStates>; // by day and printer

// Takes entries of "PrinterStatus", "ErrPaperJam" and of the machine, oldest first.
class StateCounter {
public:
    // Times before are not counted.
    explicit StateCounter(int64_t since) : m_since(since) {}
    void Take(const Entry& entry);
    // recordedUntil: the states last until then.
    States End(int64_t recordedUntil);

private:
    struct Present {
        std::string state; // empty: not known
        int64_t since = 0;
    };
    void Count(const std::string& printer, const std::string& state, int64_t from, int64_t to);
    void Enter(const std::string& printer, const std::string& state, int64_t at);

    int64_t m_since;
    std::map<std::string, Present> m_present{};
    States m_states{};
};

} // namespace views

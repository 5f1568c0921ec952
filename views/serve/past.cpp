// The journal's entries are played to summaries. No state.
#include "serve/past.h"

#include "journal/journal.h"

#include <algorithm>

namespace views {

namespace {

constexpr int64_t kDayMs = 24 * 3600 * 1000;

// What was not recorded.
Span Unknown(int64_t fromMs) {
    return {.fromMs = fromMs, .known = false};
}

struct Player {
    std::string machine = MachineName();
    int64_t sinceMs;
    std::map<std::string, Printer> printers{};
    Board::Past past{};

    void Show(const Printer& printer, int64_t atMs) {
        Board::AddTo(past.spans[{machine, printer.name}], SpanOf(printer, SummaryOf(printer), std::max(atMs, sinceMs)));
    }
    void ShowNothing(int64_t atMs) {
        for (const auto& [name, printer] : printers)
            Board::AddTo(past.spans[{machine, name}], Unknown(std::max(atMs, sinceMs)));
    }
    void SetStale(const std::string& name, bool stale, int64_t atMs) {
        for (auto& [each, printer] : printers) {
            if (!name.empty() && each != name) continue;
            printer.stale = stale;
            Show(printer, atMs);
        }
    }

    void Take(const Entry& entry) {
        if (past.beganMs == 0) past.beganMs = std::max(entry.atMs, sinceMs);
        switch (entry.told) {
        case Told::Value:
        case Told::Present: {
            Printer& printer = printers[entry.printer];
            printer.name = entry.printer;
            Value& value = printer.values[entry.variable];
            value.meaning = entry.meaning;
            value.severity = entry.severity;
            return Show(printer, entry.atMs);
        }
        case Told::Removed:
            printers.erase(entry.printer);
            past.spans.erase({machine, entry.printer});
            return;
        case Told::Stale:
        case Told::Disconnected:
            return SetStale(entry.printer, true, entry.atMs);
        case Told::Fresh:
        case Told::Connected:
            return SetStale(entry.printer, false, entry.atMs);
        case Told::Gap:
            ShowNothing(entry.sinceMs);
            return SetStale("", false, entry.atMs);
        case Told::Added:
            return;
        }
    }
};

} // namespace

Board::Past ReadPast(const std::string& journalFolder, int64_t now) {
    Player player{.sinceMs = now - kDayMs};
    JournalQuery query{.sinceMs = player.sinceMs, .before = true};
    for (const char* name : StateVariables())
        query.variables.push_back(name);
    const int64_t until = ReadJournal(journalFolder, query, [&](const Entry& entry) { player.Take(entry); });
    if (until > 0) player.ShowNothing(until);
    return std::move(player.past);
}

} // namespace views

// What the terminal view shows: its state, what it draws, what keys do. State: a View, for as long as RunTop runs.
#pragma once

#include "top/rows.h"
#include "top/screen.h"

#include <deque>
#include <set>

namespace views {

enum class Mode { List, Filter, Ask, Help };

struct View {
    Source& source;
    Rows rows{};
    std::deque<std::pair<std::string, product::Severity>> events{}; // the latest first
    std::set<std::string> notConnected{};
    Mode mode = Mode::List;
    size_t top = 0; // first printer on the screen
    size_t job = 0; // chosen, of the chosen printer
    std::string message{};
    // To cancel, once the user says yes.
    PrinterKey askedPrinter{};
    uint32_t askedJob = 0;
    bool done = false;
};

// Takes over what the source told.
void TakeChanges(View& view, const std::vector<Change>& changes);

// Null: there is none.
const Row* ChosenRow(View& view);
const Job* ChosenJob(View& view);

// "12:34:56", local time.
std::string ClockText(int64_t ms);

void Draw(Screen& screen, View& view);
// page: printers that PgUp and PgDn pass.
void OnKey(View& view, const Screen::Key& key, int page);

} // namespace views

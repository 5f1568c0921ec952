// What was told, and what keys do. State: the View's.
#include "top/view.h"

#include <algorithm>
#include <ctime>
#include <functional>

#define NCURSES_NOMACROS
#include <curses.h>

namespace views {

namespace {

constexpr size_t kEventsKept = 100;

std::string EventText(const Change& change) {
    std::string text = ClockText(change.atMs) + "  ";
    if (change.printer.empty()) return text + change.machine + ": " + NameOf(change.kind);
    text += change.printer + ": ";
    if (change.kind != ChangeKind::Value) return text + NameOf(change.kind);
    const Value& value = *change.after;
    return text + change.variable + " " + (value.meaning.empty() ? value.text : value.meaning);
}

} // namespace

// ---- what was told

std::string ClockText(int64_t ms) {
    const time_t seconds = static_cast<time_t>(ms / 1000);
    tm parts{};
    char text[16] = "";
    if (localtime_r(&seconds, &parts)) std::strftime(text, sizeof text, "%H:%M:%S", &parts);
    return text;
}

void TakeChanges(View& view, const std::vector<Change>& changes) {
    view.rows.Update(view.source.Now(), changes);
    for (const Change& change : changes) {
        if (change.kind == ChangeKind::Connected) view.notConnected.erase(change.machine);
        if (change.kind == ChangeKind::Disconnected) view.notConnected.insert(change.machine);
        // What the library composes repeats its parts.
        const bool composed = change.after && change.after->origin == product::NameOf(product::Origin::Library);
        if (composed || (change.kind == ChangeKind::Value && !change.after)) continue;
        view.events.emplace_front(EventText(change), change.after ? change.after->severity : product::Severity::None);
        if (view.events.size() > kEventsKept) view.events.pop_back();
    }
}

const Row* ChosenRow(View& view) {
    const auto& shown = view.rows.Shown();
    return shown.empty() ? nullptr : shown[view.rows.Chosen()];
}

const Job* ChosenJob(View& view) {
    const Row* row = ChosenRow(view);
    if (!row || row->summary.jobs.empty()) return nullptr;
    view.job = std::min(view.job, row->summary.jobs.size() - 1);
    return &row->summary.jobs[view.job];
}

// ---- keys

namespace {

void Command(View& view, const std::string& done, const std::function<void()>& command) {
    try {
        command();
        view.message = done;
    } catch (const Failure& failure) {
        view.message = FailureLine(failure);
    }
}

void PauseChosen(View& view, bool pause) {
    const Row* row = ChosenRow(view);
    if (!row) return;
    Command(view, std::string(pause ? "paused" : "resumed") + " the job of " + row->key.second,
            [&] { view.source.PauseJob(*row->printer, pause); });
}

void AskToCancel(View& view) {
    const Row* row = ChosenRow(view);
    const Job* job = ChosenJob(view);
    if (!row || !job) {
        view.message = "the chosen printer has no job";
        return;
    }
    view.askedPrinter = row->key;
    view.askedJob = job->id;
    view.message = "cancel job " + std::to_string(job->id) + " \"" + job->title + "\" of " + row->key.second + "? y/N";
    view.mode = Mode::Ask;
}

void AnswerCancel(View& view, bool yes) {
    view.mode = Mode::List;
    view.message = "not cancelled";
    if (!yes) return;
    const auto printer = view.source.Now().find(view.askedPrinter);
    if (printer == view.source.Now().end()) {
        view.message = "the printer is gone";
        return;
    }
    Command(view, "cancelled job " + std::to_string(view.askedJob),
            [&] { view.source.CancelJob(printer->second, view.askedJob); });
}

void Move(View& view, int by) {
    const auto place = static_cast<int64_t>(view.rows.Chosen()) + by;
    view.rows.Choose(static_cast<size_t>(std::max<int64_t>(place, 0)));
    view.job = 0;
}

void OnListKey(View& view, const Screen::Key& key, int page) {
    constexpr int kFar = 1 << 30;
    view.message.clear();
    switch (key.code) {
    case KEY_UP:
        return Move(view, -1);
    case KEY_DOWN:
        return Move(view, 1);
    case KEY_PPAGE:
        return Move(view, -page);
    case KEY_NPAGE:
        return Move(view, page);
    case KEY_HOME:
        return Move(view, -kFar);
    case KEY_END:
        return Move(view, kFar);
    case KEY_LEFT:
        view.job -= view.job > 0;
        return;
    case KEY_RIGHT:
        ++view.job; // ChosenJob limits it
        return;
    }
    switch (key.letter) {
    case L'q':
    case L'Q':
        view.done = true;
        return;
    case L'k':
        return Move(view, -1);
    case L'j':
        return Move(view, 1);
    case L'?':
    case L'h':
        view.mode = Mode::Help;
        return;
    case L'/':
        view.mode = Mode::Filter;
        return;
    case L'\x1b':
        return view.rows.SetFilter("");
    case L's':
        return view.rows.SetOrder(static_cast<Order>((static_cast<int>(view.rows.ShownOrder()) + 1) % kOrders));
    case L'p':
        return PauseChosen(view, true);
    case L'r':
        return PauseChosen(view, false);
    case L'c':
        return AskToCancel(view);
    }
}

void OnFilterKey(View& view, const Screen::Key& key) {
    constexpr size_t kLongest = 100;
    std::string filter = view.rows.Filter();
    if (key.letter == L'\n' || key.letter == L'\r' || key.code == KEY_ENTER) {
        view.mode = Mode::List;
    } else if (key.letter == L'\x1b') {
        view.mode = Mode::List;
        filter.clear();
    } else if (key.code == KEY_BACKSPACE || key.letter == 0x7f || key.letter == L'\b') {
        while (!filter.empty() && (filter.back() & 0xc0) == 0x80)
            filter.pop_back();
        if (!filter.empty()) filter.pop_back();
    } else if (key.letter >= L' ' && filter.size() < kLongest) {
        filter += ToUtf8(key.letter);
    }
    view.rows.SetFilter(filter);
}

} // namespace

void OnKey(View& view, const Screen::Key& key, int page) {
    if (key.code == KEY_RESIZE) return; // the next drawing has the new size
    switch (view.mode) {
    case Mode::List:
        return OnListKey(view, key, page);
    case Mode::Filter:
        return OnFilterKey(view, key);
    case Mode::Ask:
        return AnswerCancel(view, key.letter == L'y' || key.letter == L'Y');
    case Mode::Help:
        view.mode = Mode::List;
        return;
    }
}

} // namespace views

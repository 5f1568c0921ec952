// What is on the screen. State: the View's.
#include "top/snapshot.h"
#include "top/view.h"

#include "model/local.h"

#include <algorithm>

namespace views {

namespace {

constexpr int kNarrowest = 20, kLowest = 5;

struct Columns {
    int name, state, supplies, jobs = 5, pages = 9;
};

// The state gets what the others leave.
Columns ColumnsOf(int width) {
    Columns columns{};
    columns.pages = width >= 70 ? 9 : 0;
    columns.supplies = width >= 100 ? 30 : width >= 60 ? 20 : 0;
    columns.name = std::clamp(width / 4, 8, 30);
    columns.state = width - 2 - columns.name - columns.supplies - columns.jobs - columns.pages;
    return columns;
}

// As many as fit, the lowest first: "T ████░ 52%".
std::string SuppliesBars(const Screen& screen, const Summary& summary, int columns) {
    std::vector<Supply> supplies = summary.supplies;
    std::stable_sort(supplies.begin(), supplies.end(), [](const Supply& a, const Supply& b) {
        return (a.percent < 0 ? 101 : a.percent) < (b.percent < 0 ? 101 : b.percent);
    });
    constexpr int kOne = 9; // columns: a letter, a bar, a blank
    std::string text;
    if (supplies.size() == 1 && columns >= 16) {
        const Supply& only = supplies.front();
        if (only.percent < 0) return only.name + " ?";
        return screen.Bar(only.percent, columns - 7) + " " + std::to_string(only.percent) + "%";
    }
    for (size_t i = 0; i < supplies.size() && static_cast<int>(i + 1) * kOne <= columns; ++i) {
        const std::wstring letter = Fitted(supplies[i].name, 1);
        text += ToUtf8(letter.empty() ? L'?' : letter[0]);
        text += (supplies[i].percent < 0 ? "???????" : screen.Bar(supplies[i].percent, kOne - 2)) + " ";
    }
    return text;
}

void DrawTitle(Screen& screen, View& view) {
    const Rows::Counts counts = view.rows.Count();
    const size_t machines = view.rows.Machines();
    const std::string where = machines > 1 ? std::to_string(machines) + " machines" : MachineName();
    std::string text = " " + where + "  " + ClockText(NowMs()) + "  " + std::to_string(counts.all) +
                       (counts.all == 1 ? " printer" : " printers");
    if (counts.errors) text += ", " + std::to_string(counts.errors) + " with an error";
    if (counts.warnings) text += ", " + std::to_string(counts.warnings) + " to look at";
    if (counts.stale) text += ", " + std::to_string(counts.stale) + " not sure";
    for (const std::string& machine : view.notConnected)
        text += "  NOT CONNECTED: " + machine;
    screen.Put(0, 0, screen.Width(), text, Look::Title);
}

void DrawRow(Screen& screen, const Row& row, const Columns& columns, int line, bool chosen, bool machines) {
    const Look look = LookOf(row.summary.severity, row.printer->stale);
    const char* mark = row.summary.severity == product::Severity::Error     ? "!"
                       : row.printer->stale                                 ? "?"
                       : row.summary.severity == product::Severity::Warning ? "*"
                                                                            : " ";
    const std::string name = machines ? row.key.second + " @" + row.key.first : row.key.second;
    const size_t jobs = row.summary.jobs.size();
    int column = 0;
    const auto put = [&](int width, const std::string& text, Look as) {
        if (width > 0) {
            screen.Put(line, column, width - 1, text, as, chosen);
            screen.Put(line, column + width - 1, 1, " ", Look::Plain, chosen);
        }
        column += width;
    };
    put(2, mark, look);
    put(columns.name, name, chosen ? Look::Bold : Look::Plain);
    put(columns.state, StateText(row), look);
    if (columns.supplies) put(columns.supplies, SuppliesBars(screen, row.summary, columns.supplies - 1), Look::Plain);
    put(columns.jobs, jobs ? std::to_string(jobs) : "", Look::Plain);
    put(columns.pages, row.summary.pages ? std::to_string(*row.summary.pages) : "", Look::Faint);
}

void DrawList(Screen& screen, View& view, int first, int lines) {
    const Columns columns = ColumnsOf(screen.Width());
    const auto& shown = view.rows.Shown();
    int column = 2;
    const std::pair<int, const char*> heads[] = {{columns.name, "PRINTER"},
                                                 {columns.state, "STATE"},
                                                 {columns.supplies, "SUPPLIES"},
                                                 {columns.jobs, "JOBS"},
                                                 {columns.pages, "PAGES"}};
    for (const auto& [width, head] : heads) {
        if (width > 0) screen.Put(first, column, width, head, Look::Faint);
        column += width;
    }
    const size_t room = static_cast<size_t>(std::max(lines - 1, 1));
    const size_t chosen = view.rows.Chosen();
    if (chosen < view.top) view.top = chosen;
    if (chosen >= view.top + room) view.top = chosen - room + 1;
    if (view.top + room > shown.size()) view.top = shown.size() > room ? shown.size() - room : 0;
    const bool machines = view.rows.Machines() > 1;
    for (size_t i = 0; i < room && view.top + i < shown.size(); ++i)
        DrawRow(screen, *shown[view.top + i], columns, first + 1 + static_cast<int>(i), view.top + i == chosen,
                machines);
    if (shown.empty())
        screen.Put(first + 1, 2, screen.Width() - 2,
                   view.rows.Filter().empty() ? "no printers yet; 'oriel printers add' adds one" : "no printer matches",
                   Look::Faint);
}

// The chosen printer: its jobs, then what it and the others told last.
void DrawDetails(Screen& screen, View& view, int first, int lines) {
    const int width = screen.Width();
    int line = first;
    const int end = first + lines;
    const Row* row = ChosenRow(view);
    if (row && line < end) {
        std::string text = row->key.second;
        if (!row->printer->device.empty()) text += "  " + row->printer->device;
        if (const std::string supplies = SuppliesText(row->summary); !supplies.empty()) text += "  " + supplies;
        screen.Put(line++, 0, width, text, Look::Bold);
        if (!row->summary.panel.empty() && line < end)
            screen.Put(line++, 2, width - 2, "says: " + row->summary.panel, Look::Plain);
        const Job* chosen = ChosenJob(view);
        const size_t most = static_cast<size_t>(std::max((end - line) / 2, 1));
        const size_t start = view.job >= most ? view.job - most + 1 : 0;
        for (size_t i = start; chosen && i < row->summary.jobs.size() && i < start + most && line < end; ++i) {
            const Job& job = row->summary.jobs[i];
            screen.Put(line++, 2, width - 2,
                       "job " + std::to_string(job.id) + "  " + job.state + "  " + job.owner + "  " + job.title,
                       Look::Plain, &job == chosen);
        }
    }
    for (const auto& [text, severity] : view.events) {
        if (line >= end) break;
        screen.Put(line++, 0, width, text, LookOf(severity, severity == product::Severity::None));
    }
}

void DrawHelp(Screen& screen) {
    static constexpr const char* kLines[] = {
        "Up, Down, PgUp, PgDn, Home, End   choose a printer",
        "Left, Right                       choose one of its jobs",
        "/                                 show only printers that have this text; Esc shows all",
        "s                                 order by attention, name, jobs, pages, supplies",
        "p, r                              pause, resume the job that is sent to the printer",
        "c                                 cancel the chosen job; asks first",
        "?                                 this help",
        "q                                 quit",
        "",
        "! error   * look at it   ? the values are not sure",
    };
    int line = 2;
    for (const char* text : kLines)
        screen.Put(line++, 2, screen.Width() - 2, text, Look::Plain);
}

std::string BottomLine(View& view) {
    switch (view.mode) {
    case Mode::Filter:
        return "/" + view.rows.Filter() + "_";
    case Mode::Ask:
        return view.message;
    case Mode::Help:
        return "press a key";
    case Mode::List:
        break;
    }
    if (!view.message.empty()) return view.message;
    const std::string filter = view.rows.Filter().empty() ? "" : "only \"" + view.rows.Filter() + "\"  Esc all  ";
    return filter + "q quit  ? help  / filter  s sort: " + NameOf(view.rows.ShownOrder()) +
           "  p pause  r resume  c cancel";
}

} // namespace

void Draw(Screen& screen, View& view) {
    screen.Clear();
    const int height = screen.Height();
    if (screen.Width() < kNarrowest || height < kLowest) {
        screen.Put(0, 0, screen.Width(), "too small", Look::Plain);
        return screen.Show();
    }
    DrawTitle(screen, view);
    if (view.mode == Mode::Help) {
        DrawHelp(screen);
    } else {
        // A third for the details, while the list has its heading and three lines.
        const int details = height >= 12 ? std::max(height / 3, 6) : 0;
        DrawList(screen, view, 1, height - 2 - details);
        if (details) DrawDetails(screen, view, height - 1 - details, details);
    }
    screen.Put(height - 1, 0, screen.Width(), BottomLine(view), view.mode == Mode::List ? Look::Faint : Look::Bold);
    screen.Show();
}

} // namespace views

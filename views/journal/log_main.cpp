// `oriel log`: the changes that were recorded, or those that happen; the recorder that `oriel up` starts. No state.
#include "journal/history.h"
#include "journal/journal.h"
#include "journal/recorder.h"

#include "base/device_state.h"
#include "base/output.h"
#include "model/local.h"
#include "model/program.h"
#include "model/times.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>

using namespace views;

namespace {

struct LogOptions {
    std::string printer;
    std::vector<std::string> variables;
    std::string since = "24h";
    bool follow = false;
    bool states = false;
    bool record = false;
};

void Print(const Entry& entry) {
    if (g_output.json)
        PrintJsonLine(EntryJson(entry));
    else
        PrintLine(Styled(TimeText(entry.atMs), Style::Faint) + "  " + EntryText(entry));
}

bool IsWanted(const LogOptions& options, const Entry& entry) {
    if (entry.told == Told::Present) return false;
    if (!options.printer.empty() && !entry.printer.empty() && entry.printer != options.printer) return false;
    return options.variables.empty() || entry.variable.empty() ||
           std::find(options.variables.begin(), options.variables.end(), entry.variable) != options.variables.end();
}

JournalQuery QueryOf(const LogOptions& options) {
    return {.sinceMs = ParseSince(options.since, NowMs()), .printer = options.printer, .variables = options.variables};
}

Failure NothingRecorded() {
    return {Exit::False, "nothing was recorded", "there is no journal in " + JournalFolder(),
            "record from now on: oriel config Views --add 'log --record'"};
}

Exit ShowHistory(const LogOptions& options) {
    bool any = false;
    const int64_t until = ReadJournal(JournalFolder(), QueryOf(options), [&](const Entry& entry) {
        if (!IsWanted(options, entry)) return;
        any = any || options.printer.empty() || !entry.printer.empty();
        Print(entry);
    });
    if (until == 0) throw NothingRecorded();
    if (any || g_output.json) return any ? Exit::Done : Exit::False;
    PrintError(
        {Exit::False,
         "nothing was recorded in this time" + (options.printer.empty() ? "" : " of \"" + options.printer + "\""), "",
         "go further back with --since"});
    return Exit::False;
}

// What was recorded, and then what the source tells. What both have is shown once.
Exit FollowAll(const LogOptions& options) {
    LocalPrinters source;
    const EndOnInterrupt end(source);
    // What is there already is no news.
    for (const Change& change : source.Wait(std::chrono::seconds(10)))
        if (change.kind == ChangeKind::Disconnected) Print(EntryOf(change, ""));
    std::map<std::pair<std::string, std::string>, int64_t> shown; // the last change of each variable
    ReadJournal(JournalFolder(), QueryOf(options), [&](const Entry& entry) {
        if (!IsWanted(options, entry)) return;
        if (entry.told == Told::Value) shown[{entry.printer, entry.variable}] = entry.atMs;
        Print(entry);
    });
    if (g_output.json) PrintJsonLine({{"event", "following"}, {"time", TimeText(NowMs())}});
    while (!end.Asked() && !OutputFailure()) {
        for (const Change& change : source.Wait(std::chrono::minutes(1))) {
            const auto printer = source.Now().find({change.machine, change.printer});
            const Entry entry = EntryOf(change, change.kind == ChangeKind::Stale && printer != source.Now().end()
                                                    ? printer->second.trouble
                                                    : "");
            const auto last = shown.find({entry.printer, entry.variable});
            const bool again = entry.told == Told::Value && last != shown.end() && entry.atMs <= last->second;
            if (!again && IsWanted(options, entry)) Print(entry);
        }
    }
    return Exit::Done;
}

std::string ShareText(int64_t ms, int64_t all) {
    return all == 0 ? "" : std::to_string((ms * 1000 / all + 5) / 10) + " %";
}

Exit ShowStates(const LogOptions& options) {
    JournalQuery query = QueryOf(options);
    query.before = true;
    query.variables = {"PrinterStatus", "ErrPaperJam"};
    StateCounter counter(query.sinceMs);
    const int64_t until = ReadJournal(JournalFolder(), query, [&](const Entry& entry) { counter.Take(entry); });
    if (until == 0) throw NothingRecorded();
    const States states = counter.End(until);
    Json days = Json::array();
    Table table{{{"DAY (UTC)", "PRINTER", "JAMS", "STATE", "TIME", "SHARE"}}};
    for (const auto& [key, day] : states) {
        Json json{{"day", key.first}, {"printer", key.second}, {"jams", day.jams}, {"states_ms", Json::object()}};
        int64_t all = 0;
        for (const auto& [state, ms] : day.ms)
            all += ms;
        std::string jams = std::to_string(day.jams);
        for (const auto& [state, ms] : day.ms) {
            json["states_ms"][state] = ms;
            table.rows.push_back({key.first, key.second, std::exchange(jams, ""), state,
                                  DurationText(static_cast<uint64_t>(ms)), ShareText(ms, all)});
        }
        days.push_back(std::move(json));
    }
    if (g_output.json) {
        PrintJson({{"recorded_until", TimeText(until)}, {"days", days}});
    } else if (!days.empty()) {
        table.Print();
    }
    if (!days.empty()) return Exit::Done;
    if (!g_output.json)
        PrintError({Exit::False, "no state was recorded in this time", "", "go further back with --since"});
    return Exit::False;
}

Exit Run(const LogOptions& options) {
    if (options.record) {
        LocalPrinters source;
        const EndOnInterrupt end(source);
        return Record(source, end);
    }
    if (options.states) {
        g_output.stream = false;
        return ShowStates(options);
    }
    return options.follow ? FollowAll(options) : ShowHistory(options);
}

} // namespace

int main(int argc, char** argv) {
    LogOptions options;
    const auto add = [&](CLI::App& app) {
        app.add_option("PRINTER", options.printer, "Name of the printer (default: all)");
        app.add_option("VARIABLE", options.variables, "Names of variables (default: all)");
        app.add_option("--since", options.since,
                       "How long ago (90s, 30min, 2h, 7d), or a time in UTC (2026-11-24, 2026-11-24T08:15)")
            ->capture_default_str();
        CLI::Option* follow =
            app.add_flag("--follow", options.follow, "Go on with each change as it happens, until Ctrl-C");
        CLI::Option* states =
            app.add_flag("--states", options.states,
                         "Show for each day how long the printers were in each state, and how often paper jammed");
        CLI::Option* record = app.add_flag("--record", options.record,
                                           "Record the changes, as 'oriel up' has it do; one process per machine");
        follow->excludes(states)->excludes(record);
        states->excludes(record);
    };
    return RunProgram(argc, argv, {"log", "Shows the changes of printers that were recorded.", true}, add,
                      [&] { return Run(options); });
}

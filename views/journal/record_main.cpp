// `oriel record`: the changes of a printer as a script. No state.
#include "journal/history.h"
#include "journal/journal.h"
#include "journal/script.h"

#include "base/failure.h"
#include "base/output.h"
#include "base/printers.h"
#include "base/text.h"
#include "model/local.h"
#include "model/program.h"
#include "model/times.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

using namespace views;

namespace {

struct RecordOptions {
    std::string printer;
    std::string file;
    std::string since; // empty: from now on
};

// Each statement is written at once, so that a script is whole up to its last change whenever this ends.
class ScriptFile {
public:
    explicit ScriptFile(std::string path) : m_path(std::move(path)) {}
    // Replaces a file that is there.
    void Open() {
        if (!m_file) m_file.reset(IsStandardOutput() ? stdout : std::fopen(m_path.c_str(), "w"));
        if (!m_file) Throw();
    }
    void Write(const std::string& text) {
        Open();
        if (std::fputs(text.c_str(), m_file.get()) < 0 || std::fflush(m_file.get()) != 0) Throw();
    }
    bool IsStandardOutput() const { return m_path == "-"; }

private:
    [[noreturn]] void Throw() const { throw Failure{Exit::False, "cannot write " + m_path, std::strerror(errno), ""}; }

    std::string m_path;
    std::unique_ptr<std::FILE, decltype([](std::FILE* file) { std::fclose(file); })> m_file;
};

struct Recorded {
    ScriptWriter writer;
    ScriptFile file;
    uint64_t changes = 0;
    uint64_t missed = 0;
};

void WriteChange(Recorded& recorded, const std::string& variable, const std::vector<uint8_t>& value, int64_t atMs,
                 uint64_t missed) {
    if (missed != 0)
        recorded.file.Write(ScriptComment(std::to_string(missed) + " more changes of " + variable + " were not seen"));
    recorded.file.Write(recorded.writer.Set(variable, value, atMs));
    ++recorded.changes;
    recorded.missed += missed;
}

using Values = std::map<std::string, std::vector<uint8_t>>;

void WriteStart(Recorded& recorded, const std::string& printer, const Values& values, int64_t atMs) {
    recorded.file.Write(ScriptComment(printer + ", recorded since " + TimeText(atMs)));
    for (const auto& [variable, value] : values)
        if (recorded.writer.Takes(variable)) recorded.file.Write(recorded.writer.Set(variable, value, atMs));
}

void RecordLive(Recorded& recorded, const std::string& name) {
    recorded.file.Open();
    LocalPrinters source;
    const EndOnInterrupt end(source);
    const std::pair<std::string, std::string> key{MachineName(), name};
    bool begun = false;
    while (!end.Asked()) {
        const std::vector<Change> changes = source.Wait(std::chrono::minutes(1));
        const auto printer = source.Now().find(key);
        if (!begun && printer != source.Now().end()) {
            Values values;
            for (const auto& [variable, value] : printer->second.values)
                values[variable] = value.bytes;
            WriteStart(recorded, name, values, NowMs());
            begun = true;
            if (!recorded.file.IsStandardOutput() && !g_output.json)
                PrintLine("recording \"" + name + "\"; Ctrl-C ends it");
            continue;
        }
        for (const Change& change : changes) {
            if (change.kind == ChangeKind::Gap)
                recorded.file.Write(ScriptComment("the service was restarted; changes are missing here"));
            if (change.kind == ChangeKind::Value && change.printer == name && recorded.writer.Takes(change.variable))
                WriteChange(recorded, change.variable, change.after->bytes, change.atMs, change.missed);
        }
    }
    recorded.file.Write(recorded.writer.Wait(NowMs()));
}

void RecordJournal(Recorded& recorded, const std::string& name, int64_t since) {
    Values values; // at the time
    bool begun = false;
    const auto begin = [&] {
        if (!begun) WriteStart(recorded, name, values, since);
        begun = true;
    };
    const int64_t until =
        ReadJournal(JournalFolder(), {.sinceMs = since, .printer = name, .before = true}, [&](const Entry& entry) {
            const bool value = entry.after.known && recorded.writer.Takes(entry.variable);
            const auto known = values.find(entry.variable);
            if (value && (entry.atMs < since || (entry.told == Told::Present && known == values.end()))) {
                values[entry.variable] = entry.after.bytes;
                return;
            }
            if (entry.told == Told::Gap && entry.printer.empty() && entry.atMs >= since) {
                begin();
                recorded.file.Write(ScriptComment("nothing was recorded here; changes are missing"));
            }
            // What a new segment, or the recorder's return, tells again is a change if it is another value.
            if (!value || (entry.told == Told::Present && known->second == entry.after.bytes)) return;
            begin();
            values[entry.variable] = entry.after.bytes;
            WriteChange(recorded, entry.variable, entry.after.bytes, entry.atMs, entry.missed);
        });
    if (until == 0 || values.empty())
        throw Failure{Exit::False, "nothing was recorded of \"" + name + "\"", "", "'oriel log' shows what was"};
    begin();
    recorded.file.Write(recorded.writer.Wait(until));
}

Exit Run(const RecordOptions& options) {
    const std::string name = KnownPrinterName(RequireAnsi(options.printer, "the printer name"));
    const int64_t now = NowMs();
    const int64_t since = options.since.empty() ? now : ParseSince(options.since, now);
    Recorded recorded{ScriptWriter(DriverOf(name).value_or("")), ScriptFile(options.file)};
    const std::string shown = Printable(ToUtf8(name));
    if (options.since.empty())
        RecordLive(recorded, shown);
    else
        RecordJournal(recorded, shown, since);
    if (recorded.file.IsStandardOutput()) return Exit::Done;
    if (g_output.json)
        PrintJson(
            {{"printer", shown}, {"file", options.file}, {"changes", recorded.changes}, {"missed", recorded.missed}});
    else
        PrintLine("recorded " + std::to_string(recorded.changes) + " changes of \"" + shown + "\" in " + options.file);
    return Exit::Done;
}

} // namespace

int main(int argc, char** argv) {
    RecordOptions options;
    const auto add = [&](CLI::App& app) {
        app.add_option("PRINTER", options.printer, "Name of the printer")->required();
        app.add_option("FILE", options.file, "The script; - is standard output")->required();
        app.add_option(
            "--since", options.since,
            "From the journal, since then until now: 2h, 7d, 2026-11-24 (default: from now on, until Ctrl-C)");
    };
    return RunProgram(argc, argv,
                      {"record", "Writes the changes of a printer as a script, which a printer side plays again."}, add,
                      [&] { return Run(options); });
}

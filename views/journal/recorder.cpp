// No state.
#include "journal/recorder.h"

#include "base/output.h"
#include "model/local.h"

#include "product/log.h"

#include <algorithm>

namespace views {

namespace {

constexpr auto kIdle = std::chrono::seconds(30); // then the time until which was recorded is stored

std::vector<Entry> AllValues(const Printers& printers, int64_t now) {
    std::vector<Entry> entries;
    for (const auto& [key, printer] : printers)
        for (const auto& [name, value] : printer.values)
            entries.push_back(PresentEntry(printer.name, name, value, now));
    return entries;
}

struct Recording {
    JournalWriter journal{JournalFolder(), ReadJournalBounds()};
    int64_t goneAt = 0;    // the service; 0: it is there
    int64_t lostSince = 0; // the journal could not be written; 0: it could
};

Entry GapEntry(int64_t since, int64_t now) {
    return {.told = Told::Gap, .atMs = now, .sinceMs = since};
}

void Take(Recording& recording, const Source& source, const Change& change, std::vector<Entry>& entries) {
    const auto printer = source.Now().find({change.machine, change.printer});
    const bool known = printer != source.Now().end();
    entries.push_back(EntryOf(change, change.kind == ChangeKind::Stale && known ? printer->second.trouble : ""));
    if (change.kind == ChangeKind::Disconnected) recording.goneAt = change.atMs;
    if (change.kind == ChangeKind::Gap) entries.back().sinceMs = std::exchange(recording.goneAt, 0);
    if (change.kind != ChangeKind::PrinterAdded || !known) return;
    for (const auto& [name, value] : printer->second.values)
        entries.push_back(PresentEntry(change.printer, name, value, change.atMs));
}

void Store(Recording& recording, const Source& source, std::vector<Entry> entries) {
    const int64_t now = NowMs();
    if (recording.lostSince != 0) entries.insert(entries.begin(), GapEntry(recording.lostSince, now));
    try {
        recording.journal.Append(entries, now, [&] { return AllValues(source.Now(), now); });
        recording.lostSince = 0;
    } catch (const Failure& failure) {
        if (recording.lostSince != 0) return; // it was reported
        recording.lostSince = now;
        LogFailure(failure);
    }
}

} // namespace

Exit Record(Source& source, const EndOnInterrupt& end) {
    product::NameLog("oriel-log");
    Recording recording;
    const int64_t until = recording.journal.RecordedUntil();
    std::vector<Entry> entries;
    if (until != 0) entries.push_back(GapEntry(until, NowMs()));
    while (!end.Asked()) {
        for (const Change& change : source.Wait(kIdle))
            Take(recording, source, change, entries);
        Store(recording, source, std::exchange(entries, {}));
    }
    return Exit::Done;
}

} // namespace views

// No state.
#include "journal/recorder.h"

#include "base/output.h"
#include "model/local.h"

#include "product/log.h"
#include "product/variables.h"

#include <algorithm>
#include <map>

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

// Every user may write some variables. What they write must not push the printers' history out, so it has a share of
// the space for each day, which fills up steadily. What does not fit is counted.
struct UsersShare {
    explicit UsersShare(const JournalBounds& bounds)
        : most(static_cast<double>(bounds.bytes) / kSharesOfSpace), left(most) {}

    // Whether so many bytes fit now.
    bool Take(size_t bytes, int64_t nowMs) {
        constexpr double kDayMs = 24.0 * 3600 * 1000;
        if (filledAt != 0) left = std::min(most, left + most * static_cast<double>(nowMs - filledAt) / kDayMs);
        filledAt = nowMs;
        if (static_cast<double>(bytes) > left) return false;
        left -= static_cast<double>(bytes);
        return true;
    }

    static constexpr double kSharesOfSpace = 16;
    double most;
    double left;
    int64_t filledAt = 0;
};

bool EveryoneWrites(std::string_view name) {
    const BuiltInVariable* variable = FindBuiltInVariable(name);
    if (variable == nullptr) return false;
    if (variable->writers == Writers::Everyone) return true;
    for (std::string_view members = variable->members != nullptr ? variable->members : ""; !members.empty();) {
        const size_t end = std::min(members.find(';'), members.size());
        if (EveryoneWrites(members.substr(0, end))) return true;
        members.remove_prefix(std::min(end + 1, members.size()));
    }
    return false;
}

size_t BytesOf(const Entry& entry) {
    constexpr size_t kRow = 100;
    size_t bytes = kRow;
    for (const StoredValue* value : {&entry.before, &entry.after})
        bytes += value->bytes.size() + value->json.size() + value->text.size();
    return bytes;
}

struct LeftOut {
    int64_t since = 0;
    uint64_t count = 0;
};

struct Recording {
    JournalBounds bounds = ReadJournalBounds();
    JournalWriter journal{JournalFolder(), bounds};
    UsersShare users{bounds};
    std::map<std::pair<std::string, std::string>, LeftOut> leftOut{}; // by printer and variable
    int64_t goneAt = 0;                                               // the service; 0: it is there
    int64_t lostSince = 0;                                            // the journal could not be written; 0: it could
};

Entry GapEntry(int64_t since, int64_t now) {
    return {.told = Told::Gap, .atMs = now, .sinceMs = since};
}

// The change of a variable that every user may write: stores it, or counts it.
void TakeOfUsers(Recording& recording, Entry entry, std::vector<Entry>& entries) {
    const auto key = std::pair(entry.printer, entry.variable);
    if (!recording.users.Take(BytesOf(entry), NowMs())) {
        LeftOut& leftOut = recording.leftOut[key];
        if (leftOut.count == 0) leftOut.since = entry.atMs;
        leftOut.count += 1 + entry.missed;
        return;
    }
    if (const auto leftOut = recording.leftOut.find(key); leftOut != recording.leftOut.end()) {
        entries.push_back({.told = Told::Gap,
                           .atMs = entry.atMs,
                           .sinceMs = leftOut->second.since,
                           .printer = entry.printer,
                           .variable = entry.variable,
                           .missed = leftOut->second.count});
        recording.leftOut.erase(leftOut);
    }
    entries.push_back(std::move(entry));
}

void Take(Recording& recording, const Source& source, const Change& change, std::vector<Entry>& entries) {
    const auto printer = source.Now().find({change.machine, change.printer});
    const bool known = printer != source.Now().end();
    if (change.kind == ChangeKind::Value && EveryoneWrites(change.variable)) {
        TakeOfUsers(recording, EntryOf(change, ""), entries);
        return;
    }
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

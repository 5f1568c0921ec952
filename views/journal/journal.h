// The journal of changes: files of the folder "history" in the state directory, which one recorder writes and everybody
// reads.
//
//   START.sqlite       a segment: the changes since START (milliseconds since 1970), a SQLite database in WAL mode
//   START.damaged      one that could not be read, put aside
//   recorder.lock      mode 0600: whoever has locked it (flock) is the recorder
//
// The recorder appends to the newest segment, and begins the next one when it has become too large or a day old. Whole
// segments are removed when all are too large together, or too old. Each segment begins with all values that there are,
// so it can be understood without those before it.
//
// Nobody locks a segment. While it is the newest its database file rests and the write-ahead log grows, so a reader
// that opens it sees what was committed until then; a reader that meets the end of a segment, when the log moves into
// the database file, notices and reads it again. So no reader holds up the recorder. What was committed survives the
// end of the recorder, whichever it is; a power cut takes the last seconds at most.
//
// What is read is checked: a segment that is damaged is left out with a warning.
//
// State: the objects'.
#pragma once

#include "model/source.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace views {

// What a row tells. Stored: the numbers stay.
enum class Told : int {
    Value = 0,
    Added = 1,
    Removed = 2,
    Stale = 3,
    Fresh = 4,
    Gap = 5, // nothing was recorded since `since`; with a variable: `missed` changes of it were not
    Connected = 6,
    Disconnected = 7,
    Present = 8, // a value at the beginning of a segment, or of a printer that was added
};
// As ChangeKind's; "present".
const char* NameOf(Told told);

struct StoredValue {
    bool known = false;
    std::vector<uint8_t> bytes;
    std::string json; // empty: too long to be stored
    std::string text;
};

struct Entry {
    Told told = Told::Value;
    int64_t atMs = 0;
    int64_t sinceMs = 0; // of a gap; 0: not known
    std::string printer; // empty: the machine
    std::string variable;
    StoredValue before{};
    StoredValue after{};
    std::string meaning; // of the value after; of Stale the trouble
    product::Severity severity = product::Severity::None;
    std::string origin;
    uint64_t missed = 0;
};
// A change as it is stored. why: the trouble of a printer that is stale.
Entry EntryOf(const Change& change, const std::string& why);
// A value that is there.
Entry PresentEntry(const std::string& printer, const std::string& variable, const Value& value, int64_t atMs);

struct JournalBounds {
    uint64_t bytes; // of all segments together
    int64_t days;
};
// The settings "HistoryMegabytes" and "HistoryDays".
JournalBounds ReadJournalBounds();

// "history" in the state directory.
std::string JournalFolder();

// For the recorder.
class JournalWriter {
public:
    // Throws Failure, also when another process records.
    JournalWriter(std::string folder, const JournalBounds& bounds);
    ~JournalWriter();
    JournalWriter(const JournalWriter&) = delete;
    JournalWriter& operator=(const JournalWriter&) = delete;

    // The time until which an earlier recorder recorded; 0: there was none.
    int64_t RecordedUntil() const;
    // Commits all of them together, with the time as the one until which was recorded. present: gives the values that
    // there are, for the beginning of a segment. Throws Failure; then none of them is there, and the next call begins
    // a segment if this one is damaged.
    void Append(const std::vector<Entry>& entries, int64_t now, const std::function<std::vector<Entry>()>& present);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

struct JournalQuery {
    int64_t sinceMs = 0;
    std::string printer;                // empty: all
    std::vector<std::string> variables; // empty: all
    bool before = false;                // also what the first segment has from before sinceMs
};
// Calls `take` for each entry, oldest first. Damaged segments are reported on standard error. Returns the time until
// which was recorded; 0: nothing was.
int64_t ReadJournal(const std::string& folder, const JournalQuery& query,
                    const std::function<void(const Entry&)>& take);

} // namespace views

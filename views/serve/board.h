// What the server knows, for all its readers: the printers as their source last told them, what changed, and the day
// behind. State: the object's; a lock guards it, since the source is on one thread and the readers are on another.
//
// Whatever a reader of /events may have to be told has a number that only grows: a printer gets a new one when what is
// shown of it changes. A reader is a place in these numbers. What it missed is made when it can take it, from the
// present state, so a slow reader gets fewer messages and costs no memory.
#pragma once

#include "model/local.h"
#include "model/summary.h"

#include <deque>
#include <memory>
#include <mutex>

namespace views {

// A time in which what is shown of a printer stayed the same.
struct Span {
    int64_t fromMs = 0; // it ends with the next one
    product::Severity severity = product::Severity::None;
    bool stale = false;
    std::string state;
    bool known = true; // false: nobody looked
};
Span SpanOf(const Printer& printer, const Summary& summary, int64_t fromMs);

// What the board has of a printer.
struct BoardEntry {
    Printer printer;
    std::string json; // SummaryJson
    Summary summary;
    uint64_t number = 0;
    std::deque<Span> spans;     // oldest first; the last one is the present
    uint64_t notifications = 0; // changes since the server began, those seen only as a count too
    uint64_t jobs = 0;          // that came since then
};

class Board {
public:
    Board();

    // The day before it began.
    struct Past {
        std::map<PrinterKey, std::deque<Span>> spans;
        int64_t beganMs = 0; // 0: nothing is known of it
    };
    void SetPast(Past past);
    // Adds a span unless it is as the last one. Of several at one moment the last one counts.
    static void AddTo(std::deque<Span>& spans, const Span& span);

    // Brings it up to date. True: there is something to tell.
    bool Update(const Printers& printers, const std::vector<Change>& changes);

    // A reader of events. 0: it knows nothing.
    struct Place {
        uint64_t number = 0;
        bool greeted = false; // it was told that what follows is everything
        bool ready = false;   // and that this is all
    };
    // From the id of the last event that a reader had; a reader of another run, or one that was away for too long,
    // knows nothing.
    Place PlaceOf(std::string_view lastEventId) const;
    // The next events for a reader, as text/event-stream; null when there are none. Moves the place.
    std::shared_ptr<const std::string> Next(Place& place);
    bool HasMore(const Place& place) const;

    // Documents.
    std::string PrintersDocument() const;
    struct Found {
        int status = 404; // 200, 404, or 409: several machines have a printer of that name
        std::string json;
    };
    // machine: empty when it was not given.
    Found PrinterDocument(const std::string& machine, const std::string& name) const;
    // name: empty for all printers.
    Found TimelineDocument(const std::string& machine, const std::string& name, int64_t sinceMs) const;

    // Runs with the lock held.
    template <typename Use>
    void Look(Use use) const {
        const std::lock_guard hold(m_lock);
        use(m_entries, m_machines);
    }
    using Entries = std::map<PrinterKey, BoardEntry>;
    struct Machine {
        bool connected = true;
        int64_t sinceMs = 0;
    };
    using Machines = std::map<std::string, Machine>;

private:
    void Sync(const Printers& printers);
    void Apply(const Printers& printers, const Change& change);
    void Replace(const Printers& printers, const std::string& machine);
    void Take(const Printer& printer);
    void Drop(const PrinterKey& key);
    void Remember(const Change& change);
    void Refresh(BoardEntry& entry);
    void AddSpan(BoardEntry& entry);
    std::vector<const BoardEntry*> FindAll(const std::string& machine, const std::string& name) const;
    std::string MessageAfter(Place& place) const;
    bool HasMoreNow(const Place& place) const;

    struct Told { // a change, as events tell it
        uint64_t number;
        std::string json;
    };

    mutable std::mutex m_lock;
    std::string m_run; // of this server
    int64_t m_beganMs;
    Past m_past;
    uint64_t m_number = 1;
    Entries m_entries;
    std::map<uint64_t, PrinterKey> m_order;   // of printers, by number
    std::map<uint64_t, PrinterKey> m_removed; // the latest ones
    uint64_t m_forgotten = 0;                 // the highest number of a removal that is no longer known
    std::deque<Told> m_changes;               // the latest ones
    Machines m_machines;
    uint64_t m_machinesNumber = 0;
    std::vector<PrinterKey> m_dirty;
    // The last message: readers that are up to date want the same one.
    uint64_t m_lastFrom = 0;
    Place m_lastTo;
    std::shared_ptr<const std::string> m_lastMessage;
};

} // namespace views

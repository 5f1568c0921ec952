// Events that signal writes.
//
// A watched variable has up to two: "Updated" for every write (mode 1) and "Changed" for writes of other bytes (mode
// 2). A signal is a pulse: it wakes whoever waits at that moment. A watcher that is busy delivering misses it. So a
// burst of pulses ends with a closing pulse, 50 ms after its last write, which wakes watchers that came back to wait by
// then.
//
// Most watchers ask for the write time after each pulse. The closing pulse is repeated a few times while one of them
// has not asked since the last write. A single write just after such a question, when the asker may not wait yet, gets
// the same check. One watcher may wait for many variables, so closing pulses of one database are spaced.
//
// State: with each watched variable; the queue of later pulses, which one thread serves, in signals.cpp.
#pragma once

#include "database.h"

struct Watch; // watches.h

// One event and its pending pulses. The owner's lock guards all but the first two fields and the last.
struct Signal {
    VariableSignals* owner;
    product::WatchMode mode;
    HANDLE event = nullptr; // while it has watches
    DWORD watches = 0;
    DWORD lastPulse = 0;  // tick count, once pulsed
    DWORD closingDue = 0; // tick count, while closing
    bool pulsed = false;
    bool closing = false;       // a closing pulse is pending
    bool closingPlaced = false; // closingDue is spaced from others
    bool closingQueued = false; // it is in the queue of closing pulses
    DWORD repeats = 0;          // of the closing pulse; 0: unconditional
    bool owed = false;          // a write was not signalled yet; it is in the list of those
    Signal* nextOwed = nullptr; // guarded by the queue's lock
};

// The two signals of a variable. Made when it is first watched, and kept.
struct VariableSignals {
    Database* database = nullptr;
    Variable* variable = nullptr;
    VariableSignals* nextComposite = nullptr; // of Database::compositeSignals; set before it can be seen
    VariableSignals* nextOfAll = nullptr;
    std::atomic<DWORD> watchCount = 0; // of both
    std::atomic<DWORD> lastLook = 0;   // tick count of the last question for the write time, once looked
    std::atomic<bool> looked = false;
    std::atomic<DWORD> writes = 0;
    Watch* watches = nullptr; // guarded by the lock of watches.cpp

    Lock lock;
    Signal everyWrite GUARDED_BY(lock){this, product::kEveryWrite};
    Signal onlyChanges GUARDED_BY(lock){this, product::kOnlyChanges};
};

// The signals of a variable; made when it has none. Null: *status says why. One caller at a time.
VariableSignals* SignalsOf(Database& database, Variable& variable, Account& account, product::ServiceStatus* status);
// Counts one watch more, or one less; the event exists while there are any. kEventUnavailable: it cannot be had.
product::ServiceStatus AddWatchTo(VariableSignals& signals, product::WatchMode mode);
// True when it was the last one of both modes.
bool RemoveWatchFrom(VariableSignals& signals, product::WatchMode mode);

// Notes a question for the write time, before it is read. False: nobody watches the variable.
bool NoteLook(VariableSignals& signals);
// Whether a watcher in this mode that asks for the write time after each pulse has not asked since the last write.
// Defined with the watches.
bool WasMissed(VariableSignals& signals, product::WatchMode mode);

// Variables were written at one moment, and their values can be read. Signals each watched one, and each watched
// composite of any of them, once.
void SignalWritten(Database& database, std::span<const Written> variables);
inline void SignalWritten(Database& database, const Written& variable) {
    SignalWritten(database, std::span{&variable, 1});
}

// Starts the thread that pulses later. False: it cannot be started, and the last error says why.
bool StartSignals();
// Ends the thread; nothing is pulsed afterwards. No call may be in progress.
void StopSignals();

// Events that tell of writes.
//
// A watched variable has up to two: "Updated" for every write (mode 1) and "Changed" for writes of other bytes (mode
// 2). A signal is a pulse: it reaches who waits at that moment. A watcher that is busy delivering misses it, so a burst
// of pulses is closed by one more, 50 ms after its last write; whoever came back to wait by then is told again.
//
// Most watchers ask for the write time whenever they are told. The closing pulse is repeated a few times while one of
// them has not asked since the last write; and a single write that came just after such a question, when its asker may
// not have waited yet, is looked at in the same way. One watcher may wait for many variables: closing pulses of one
// database keep a distance.
//
// State: with each watched variable; the pulses to come, served by one thread, in signals.cpp.
#pragma once

#include "database.h"

struct Watch; // watches.h

// One event and the pulses that it owes. All but the first two and the last are guarded by the owner's lock.
struct Signal {
    VariableSignals* owner;
    product::WatchMode mode;
    HANDLE event = nullptr; // while it has watches
    DWORD watches = 0;
    DWORD lastPulse = 0;  // tick count, once pulsed
    DWORD closingDue = 0; // tick count, while closing
    bool pulsed = false;
    bool closing = false;       // a burst is still to be closed
    bool closingPlaced = false; // closingDue keeps its distance to others
    bool closingQueued = false; // the queue of closing pulses has it
    DWORD repeats = 0;          // of the closing pulse; 0: it comes in any case
    bool owed = false;          // a write has not been told yet; the list of those has it
    Signal* nextOwed = nullptr; // guarded by the queue's lock
};

// The two of a variable; made when it is first watched, and kept.
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

// The signals of a variable, made when it has none. Null: *status says why. One caller at a time.
VariableSignals* SignalsOf(Database& database, Variable& variable, Account& account, product::ServiceStatus* status);
// One watch more or less; the event exists while there are any. kEventUnavailable.
product::ServiceStatus AddWatchTo(VariableSignals& signals, product::WatchMode mode);
// True when it was the last one of both modes.
bool RemoveWatchFrom(VariableSignals& signals, product::WatchMode mode);

// Somebody is going to ask when the variable was written: before its write time is read. False: nobody watches it.
bool NoteLook(VariableSignals& signals);
// Whether one who watches in this mode, and asks for the write time when told, has not done so since the last write.
// Defined with the watches.
bool WasMissed(VariableSignals& signals, product::WatchMode mode);

// Variables were written at one moment, and their values can be read: each watched one and each watched composite of
// any of them is told once.
void SignalWritten(Database& database, std::span<const Written> variables);
inline void SignalWritten(Database& database, const Written& variable) {
    SignalWritten(database, std::span{&variable, 1});
}

// The thread that pulses later. False when it cannot be started.
bool StartSignals();
// Ends it; nothing is pulsed any more, and no call may be in progress.
void StopSignals();

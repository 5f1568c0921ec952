// Events that signal writes.
//
// A watched variable has up to two: "Updated" for every write (mode 1) and "Changed" for writes of other bytes (mode
// 2). A signal is a pulse, one for each write, given after the value can be read. A pulse moves the position of its
// event, so a watcher that remembers where its last wait ended misses none, and the published count of writes tells it
// what is new. The published count of pulses tells the service's from those of others (docs/notifications.md).
//
// State: with each watched variable; the queue of owed pulses, which one thread serves, in signals.cpp.
#pragma once

#include "database.h"

struct Watch; // watches.h

// One event and its pulses. The owner's lock guards all but the first two fields and the last.
struct Signal {
    VariableSignals* owner;
    product::WatchMode mode;
    HANDLE event = nullptr; // while it has watches
    DWORD watches = 0;
    DWORD pulses = 0;           // begun
    bool owed = false;          // writes were not signalled yet; it is in the list of those
    Signal* nextOwed = nullptr; // guarded by the queue's lock
};

// The two signals of a variable. Made when it is first watched, and kept.
struct VariableSignals {
    Database* database = nullptr;
    Variable* variable = nullptr;
    VariableSignals* nextComposite = nullptr; // of Database::compositeSignals; set before it can be seen
    VariableSignals* nextOfAll = nullptr;
    std::atomic<DWORD> watchCount = 0; // of both
    Watch* watches = nullptr;          // guarded by the lock of watches.cpp

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

// Variables were written at one moment, and their values can be read. Signals each watched one, and each watched
// composite of any of them, once.
void SignalWritten(Database& database, std::span<const Written> variables);
inline void SignalWritten(Database& database, const Written& variable) {
    SignalWritten(database, std::span{&variable, 1});
}

// Pulses the event of every write, though nothing was written.
void SignalUnwritten(VariableSignals& signals);

// Puts the counts of pulses and watches into a new section.
void PublishCounts(VariableSignals& signals);

// Starts the thread that pulses events of many watches. False: it cannot be started, and the last error says why.
bool StartSignals();
// Ends the thread; nothing is pulsed afterwards. No call may be in progress.
void StopSignals();

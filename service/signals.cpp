// Pulses, and the thread that gives those that the writers owe. State: the queue of that thread, and a list of all
// signals.
#include "signals.h"

#include "after_reply.h"
#include "composite.h"

#include "product/object_names.h"

#include <new>

using namespace product;

namespace {

bool g_terminalServer = false; // names of events carry the prefix; read once, at the start

Lock g_queueLock; // after a variable's
Signal* g_firstOwed GUARDED_BY(g_queueLock) = nullptr;
Signal* g_lastOwed GUARDED_BY(g_queueLock) = nullptr;
VariableSignals* g_allSignals GUARDED_BY(g_queueLock) = nullptr;
HANDLE g_queueChanged = nullptr; // auto-reset: a signal is owed
HANDLE g_stop = nullptr;
HANDLE g_thread = nullptr;

Signal& SignalOf(VariableSignals& signals, WatchMode mode) REQUIRES(signals.lock) {
    return mode == kEveryWrite ? signals.everyWrite : signals.onlyChanges;
}

// The owner's lock is held here and below.
void PutCounts(const Signal& signal) {
    const VariableSignals& signals = *signal.owner;
    if (Publication* publication = signals.database->store.publication.load(std::memory_order_acquire))
        PutCounts(publication, signals.variable->slot.load(std::memory_order_acquire), signal.mode, signal.pulses,
                  signal.watches);
}

// Wakes whoever waits now. An event that another process made auto-reset cannot be pulsed: one of its waiters wakes.
// Counted first: whoever sees more pulses than are counted knows that one was not the service's.
void Pulse(Signal& signal) {
    ++signal.pulses;
    PutCounts(signal);
    if (PulseEvent(signal.event)) return;
    SetEvent(signal.event);
    ResetEvent(signal.event);
}

void QueueOwed(Signal& signal) {
    if (signal.owed) return;
    signal.owed = true;
    LockHold hold{g_queueLock};
    signal.nextOwed = nullptr;
    (g_firstOwed ? g_lastOwed->nextOwed : g_firstOwed) = &signal;
    g_lastOwed = &signal;
    // The thread wakes many, who would all run before the writer had its reply.
    RunAfterReply([] { SetEvent(g_queueChanged); });
}

void Fire(VariableSignals& signals, bool changed) {
    LockHold hold{signals.lock};
    for (const WatchMode mode : {kEveryWrite, kOnlyChanges}) {
        Signal& signal = SignalOf(signals, mode);
        if (signal.watches == 0 || (mode == kOnlyChanges && !changed)) continue;
        if (signal.watches > kWatchesPulsedAtOnce)
            QueueOwed(signal);
        else
            Pulse(signal);
    }
}

Signal* TakeOwed() {
    LockHold hold{g_queueLock};
    Signal* signal = g_firstOwed;
    if (signal) g_firstOwed = signal->nextOwed;
    return signal;
}

void ServeOwed(Signal& signal) {
    LockHold hold{signal.owner->lock};
    signal.owed = false;
    if (signal.event) Pulse(signal);
}

DWORD WINAPI SignalThread(LPVOID) {
    const HANDLE handles[] = {g_stop, g_queueChanged};
    for (DWORD last = GetTickCount() - kBurstMs;; last = GetTickCount()) {
        if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0) return 0; // until the service stops
        const bool isBurst = GetTickCount() - last < kBurstMs;
        for (int i = 0; isBurst && i < kYieldsInBurst; ++i)
            Sleep(0);
        while (Signal* owed = TakeOwed())
            ServeOwed(*owed);
    }
}

} // namespace

VariableSignals* SignalsOf(Database& database, Variable& variable, Account& account, ServiceStatus* status) {
    VariableSignals* signals = variable.signals.load(std::memory_order_acquire);
    if (signals) return signals;
    void* piece = database.store.arena.Take(account, sizeof(VariableSignals), alignof(VariableSignals), status);
    if (!piece) return nullptr;
    signals = new (piece) VariableSignals;
    signals->database = &database;
    signals->variable = &variable;
    {
        LockHold hold{g_queueLock};
        signals->nextOfAll = g_allSignals;
        g_allSignals = signals;
    }
    if (variable.type == kTypeComposite) {
        signals->nextComposite = database.compositeSignals.load(std::memory_order_relaxed);
        database.compositeSignals.store(signals, std::memory_order_release);
    }
    variable.signals.store(signals, std::memory_order_release);
    return signals;
}

ServiceStatus AddWatchTo(VariableSignals& signals, WatchMode mode) {
    LockHold hold{signals.lock};
    Signal& signal = SignalOf(signals, mode);
    if (signal.watches == 0) {
        const VariableSignal kind = mode == kEveryWrite ? VariableSignal::Updated : VariableSignal::Changed;
        signal.event = CreateEventForEveryone(
            VariableEventName(g_terminalServer, signals.database->name, signals.variable->name->Text(), kind).text);
        if (!signal.event) return kEventUnavailable;
    }
    ++signal.watches;
    PutCounts(signal);
    signals.watchCount.fetch_add(1);
    signals.database->watches.fetch_add(1); // pairs with the writer, which stores its count and then reads this
    return kDone;
}

bool RemoveWatchFrom(VariableSignals& signals, WatchMode mode) {
    LockHold hold{signals.lock};
    Signal& signal = SignalOf(signals, mode);
    const bool last = signals.watchCount.fetch_sub(1) == 1;
    signals.database->watches.fetch_sub(1);
    if (--signal.watches == 0) {
        CloseHandle(signal.event);
        signal.event = nullptr;
    }
    PutCounts(signal);
    return last;
}

void SignalWritten(Database& database, std::span<const Written> variables) {
    if (database.watches.load(std::memory_order_seq_cst) == 0) return;
    for (const Written& written : variables)
        if (VariableSignals* signals = written.variable->signals.load(std::memory_order_acquire))
            Fire(*signals, written.changed);
    VariableSignals* composite = database.compositeSignals.load(std::memory_order_acquire);
    for (; composite; composite = composite->nextComposite) {
        bool changed = false;
        if (composite->watchCount.load() > 0 && IsComposedOf(database, *composite->variable, variables, &changed))
            Fire(*composite, changed);
    }
}

void SignalUnwritten(VariableSignals& signals) {
    Fire(signals, false);
}

void PublishCounts(VariableSignals& signals) {
    LockHold hold{signals.lock};
    for (const WatchMode mode : {kEveryWrite, kOnlyChanges})
        PutCounts(SignalOf(signals, mode));
}

bool StartSignals() {
    g_terminalServer = MachineIsTerminalServer();
    g_queueChanged = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    g_stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (!g_queueChanged || !g_stop) return false;
    g_thread = CreateThread(nullptr, 0, SignalThread, nullptr, 0, nullptr);
    return g_thread != nullptr;
}

void StopSignals() {
    if (g_thread) {
        SetEvent(g_stop);
        WaitForSingleObject(g_thread, INFINITE); // bounded: the thread waits only for its queue
    }
    for (HANDLE handle : {g_thread, g_stop, g_queueChanged})
        if (handle) CloseHandle(handle);
    LockHold hold{g_queueLock};
    while (g_allSignals) {
        VariableSignals* signals = g_allSignals;
        g_allSignals = signals->nextOfAll;
        signals->~VariableSignals(); // the memory belongs to its database
    }
}

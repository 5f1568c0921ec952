// Pulses, closing pulses, and the thread that serves them. State: the queues of that thread, and a list of all signals.
#include "signals.h"

#include "composite.h"
#include "settings.h"

#include "product/object_names.h"

#include <algorithm>
#include <new>
#include <vector>

using namespace product;

namespace {

// A burst is checked when its closing pulse was first due. If there were writes since, it is queued again.
struct Closing {
    DWORD due; // tick count
    Signal* signal;
};

bool g_terminalServer = false; // names of events carry the prefix; read once, at the start

Lock g_queueLock;                                        // after a variable's
std::vector<Closing> g_closings GUARDED_BY(g_queueLock); // a heap, the earliest first; each signal at most once
Signal* g_firstOwed GUARDED_BY(g_queueLock) = nullptr;
Signal* g_lastOwed GUARDED_BY(g_queueLock) = nullptr;
VariableSignals* g_allSignals GUARDED_BY(g_queueLock) = nullptr;
SIZE_T g_signalCount GUARDED_BY(g_queueLock) = 0;
HANDLE g_queueChanged = nullptr; // auto-reset: a signal is owed, or a closing pulse is due earlier
HANDLE g_stop = nullptr;
HANDLE g_thread = nullptr;

Signal& SignalOf(VariableSignals& signals, WatchMode mode) REQUIRES(signals.lock) {
    return mode == kEveryWrite ? signals.everyWrite : signals.onlyChanges;
}

bool IsLater(const Closing& a, const Closing& b) {
    return a.due != b.due && TickReached(a.due, b.due);
}

// due: at or before closingDue; an earlier one is checked twice.
void QueueClosing(Signal& signal, DWORD due) {
    if (signal.closingQueued) return;
    signal.closingQueued = true;
    LockHold hold{g_queueLock};
    g_closings.push_back({due, &signal}); // room was made with the signal
    std::push_heap(g_closings.begin(), g_closings.end(), IsLater);
    if (g_closings.front().signal == &signal) SetEvent(g_queueChanged);
}

void QueueOwed(Signal& signal) {
    if (signal.owed) return;
    signal.owed = true;
    LockHold hold{g_queueLock};
    signal.nextOwed = nullptr;
    (g_firstOwed ? g_lastOwed->nextOwed : g_firstOwed) = &signal;
    g_lastOwed = &signal;
    SetEvent(g_queueChanged);
}

// Wakes whoever waits now. An event that another process made auto-reset cannot be pulsed: one of its waiters wakes.
void Pulse(Signal& signal, DWORD now) {
    if (!PulseEvent(signal.event)) {
        SetEvent(signal.event);
        ResetEvent(signal.event);
    }
    signal.pulsed = true;
    signal.lastPulse = now;
}

// A watcher that asked for the write time a moment ago may not wait yet, so it is checked later.
bool IsLookedAt(const VariableSignals& signals, DWORD now) {
    return signals.looked.load() && now - signals.lastLook.load() < kLookGapMs;
}

void PulseForWrite(Signal& signal) {
    const DWORD now = GetTickCount();
    const bool burst = signal.pulsed && now - signal.lastPulse < kBurstGapMs;
    if (burst || IsLookedAt(*signal.owner, now)) {
        // After a single write, the closing pulse is only for watchers that were about to wait and missed it.
        const bool inAnyCase = burst || (signal.closing && signal.repeats == 0);
        signal.repeats = inAnyCase ? 0 : 1;
        signal.closing = true;
        signal.closingPlaced = false;
        signal.closingDue = now + (inAnyCase ? kClosingDelayMs : kLookDelayMs);
    }
    Pulse(signal, now);
    if (signal.closing) QueueClosing(signal, now + kClosingDelayMs);
}

void Fire(VariableSignals& signals, bool changed) {
    signals.writes.fetch_add(1);
    LockHold hold{signals.lock};
    for (const WatchMode mode : {kEveryWrite, kOnlyChanges}) {
        Signal& signal = SignalOf(signals, mode);
        if (signal.watches == 0 || (mode == kOnlyChanges && !changed)) continue;
        if (signal.watches > kWatchesPulsedAtOnce)
            QueueOwed(signal);
        else
            PulseForWrite(signal);
    }
}

Signal* TakeOwed() {
    LockHold hold{g_queueLock};
    Signal* signal = g_firstOwed;
    if (signal) g_firstOwed = signal->nextOwed;
    return signal;
}

// The signal whose burst may be over by now. Null: there is none for *wait ms.
Signal* TakeClosing(DWORD* wait) {
    LockHold hold{g_queueLock};
    if (g_closings.empty()) {
        *wait = INFINITE;
        return nullptr;
    }
    const DWORD now = GetTickCount();
    const Closing first = g_closings.front();
    if (!TickReached(now, first.due)) {
        *wait = first.due - now;
        return nullptr;
    }
    *wait = 0;
    std::pop_heap(g_closings.begin(), g_closings.end(), IsLater);
    g_closings.pop_back();
    return first.signal;
}

void ServeOwed(Signal& signal) {
    LockHold hold{signal.owner->lock};
    signal.owed = false;
    if (signal.event) PulseForWrite(signal);
}

// Spaces the closing pulse of a burst from those of its database.
void Place(Signal& signal, DWORD now) REQUIRES(signal.owner->lock) {
    DWORD& next = signal.owner->database->nextClosing;
    // A time far ahead is a leftover from before the tick count wrapped.
    const bool waits = !TickReached(now, next) && next - now <= kClosingSpacingMs * 2 * kVariablesPerDatabase;
    signal.closingDue = waits ? next : now;
    next = signal.closingDue + kClosingSpacingMs;
    signal.closingPlaced = true;
}

void ServeClosing(Signal& signal) {
    const bool missed = WasMissed(*signal.owner, signal.mode); // takes a lock that comes before the owner's
    LockHold hold{signal.owner->lock};
    signal.closingQueued = false;
    if (!signal.event || !signal.closing) return;
    const DWORD now = GetTickCount();
    if (TickReached(now, signal.closingDue)) {
        if (signal.repeats > 0 && !missed) {
            signal.closing = false;
            return;
        }
        if (!signal.closingPlaced) Place(signal, now);
    }
    if (!TickReached(now, signal.closingDue)) {
        QueueClosing(signal, signal.closingDue);
        return;
    }
    Pulse(signal, now);
    signal.closing = signal.repeats < kClosingRepeats;
    if (!signal.closing) return;
    ++signal.repeats;
    signal.closingPlaced = false;
    signal.closingDue = now + kClosingRepeatMs;
    QueueClosing(signal, signal.closingDue);
}

DWORD WINAPI SignalThread(LPVOID) {
    const HANDLE handles[] = {g_stop, g_queueChanged};
    for (;;) {
        DWORD wait = 0;
        if (Signal* owed = TakeOwed())
            ServeOwed(*owed);
        else if (Signal* closing = TakeClosing(&wait))
            ServeClosing(*closing);
        if (WaitForMultipleObjects(2, handles, FALSE, wait) == WAIT_OBJECT_0) return 0;
    }
}

void ForgetPulses(Signal& signal) {
    CloseHandle(signal.event);
    signal.event = nullptr;
    signal.pulsed = false;
    signal.closing = false;
}

} // namespace

VariableSignals* SignalsOf(Database& database, Variable& variable, Account& account, ServiceStatus* status) {
    VariableSignals* signals = variable.signals.load(std::memory_order_acquire);
    if (signals) return signals;
    void* piece = database.arena.Take(account, sizeof(VariableSignals), alignof(VariableSignals), status);
    if (!piece) return nullptr;
    signals = new (piece) VariableSignals;
    signals->database = &database;
    signals->variable = &variable;
    {
        LockHold hold{g_queueLock};
        try {
            const SIZE_T needed = 2 * (g_signalCount + 1);
            if (g_closings.capacity() < needed) g_closings.reserve(2 * needed);
        } catch (const std::bad_alloc&) {
            signals->~VariableSignals();
            *status = kOutOfMemory;
            return nullptr;
        }
        ++g_signalCount;
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
    signals.watchCount.fetch_add(1);
    signals.database->watches.fetch_add(1); // pairs with the writer, which stores its count and then reads this
    return kDone;
}

bool RemoveWatchFrom(VariableSignals& signals, WatchMode mode) {
    LockHold hold{signals.lock};
    Signal& signal = SignalOf(signals, mode);
    const bool last = signals.watchCount.fetch_sub(1) == 1;
    signals.database->watches.fetch_sub(1);
    if (--signal.watches == 0) ForgetPulses(signal);
    return last;
}

// Stored with a barrier before the write time is read; the writer stores the write time before it reads this.
bool NoteLook(VariableSignals& signals) {
    if (signals.watchCount.load() == 0) return false;
    signals.lastLook.store(GetTickCount());
    signals.looked.exchange(true);
    return true;
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

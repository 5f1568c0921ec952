// The default watchers, for registrations of any number of variables, and the watchers of one variable, which deliver
// once per signal. State: on the watchers' stacks.
//
// A pulse reaches only threads that wait, and a watcher does not wait while it delivers. So a default watcher stays
// awake after each delivery: it waits for a short time only, and when nothing came it compares the last writes of all
// its variables with those that it has delivered. When a comparison finds nothing new, it waits without a limit.
#include "base/timings.h"
#include "manager/variables.h"
#include "notify/delivery.h"

namespace {

// The same result this many times in a row is not a burst: somebody left the event set.
constexpr uint32_t kRepeatsTrusted = 100;

class ChangeWatcher {
public:
    ChangeWatcher(const NotificationRegistration& registration, DWORD awakeMs, CallbackValue* value);
    ChangeWatcher(const ChangeWatcher&) = delete;
    ChangeWatcher& operator=(const ChangeWatcher&) = delete;

    void Run();

private:
    const NotificationEntry& Entry(DWORD k) const { return m_registration.entries[m_entryOf[k]]; }
    bool IsChange(DWORD result) const { return result > WAIT_OBJECT_0 && result < WAIT_OBJECT_0 + m_count; }
    DWORD Wait(DWORD milliseconds) const { return WaitForMultipleObjects(m_count, m_handles, FALSE, milliseconds); }
    DWORD WaitIdle() const;
    DWORD WaitAwake();
    void Tell(DWORD k);
    bool TellFirstNew();
    bool ServiceIsNew() const { return m_count > 1 && m_watches[1].IsLost(); }
    void RenewAndTell();

    const NotificationRegistration& m_registration;
    const DWORD m_awakeMs;
    CallbackValue* const m_value; // null: delivers by event or message
    // The handles of the wait: the stop event, then the change events of the entries that are not delegated, in their
    // order.
    DWORD m_count = 1;
    HANDLE m_handles[MAXIMUM_WAIT_OBJECTS];
    Watch m_watches[MAXIMUM_WAIT_OBJECTS];
    uint32_t m_entryOf[MAXIMUM_WAIT_OBJECTS];
    LastWrite m_told[MAXIMUM_WAIT_OBJECTS] = {};
    DWORD m_lastAwake = WAIT_OBJECT_0; // result of the last wait after a delivery
    uint32_t m_repeats = 0;
};

product::WatchMode ModeOf(const NotificationEntry& entry) {
    return (entry.mode & NOTIFY_ON_UPDATE) != 0 ? product::kEveryWrite : product::kOnlyChanges;
}

ChangeWatcher::ChangeWatcher(const NotificationRegistration& registration, DWORD awakeMs, CallbackValue* value)
    : m_registration(registration), m_awakeMs(awakeMs), m_value(value) {
    m_handles[0] = registration.thread.stopEvent;
    for (uint32_t i = 0; i < registration.entryCount && m_count < MAXIMUM_WAIT_OBJECTS; ++i) {
        const NotificationEntry& entry = registration.entries[i];
        if ((entry.mode & NOTIFY_DELEGATED) != 0) continue;
        m_entryOf[m_count] = i;
        ReadLastWrite(registration, entry, &m_told[m_count]); // writes before the watch are not delivered
        m_watches[m_count].Begin(registration, entry.variableName, ModeOf(entry));
        m_handles[m_count] = m_watches[m_count].Event();
        ++m_count;
    }
    ThreadHasBegun(registration.thread);
}

void ChangeWatcher::Tell(DWORD k) {
    const NotificationEntry& entry = Entry(k);
    if (m_value == nullptr) {
        Deliver(entry);
        return;
    }
    DWORD size = 0;
    const BYTE* value = entry.withoutValue != 0 ? nullptr : m_value->Read(m_registration, entry, &size);
    CallBack(m_registration, entry, m_entryOf[k], value, size);
}

// Delivers one entry per comparison; the next comparison finds what else is new.
bool ChangeWatcher::TellFirstNew() {
    for (DWORD k = 1; k < m_count; ++k) {
        LastWrite write;
        const bool isRead = ReadLastWrite(m_registration, Entry(k), &write);
        if (ServiceIsNew()) return false;
        if (!isRead || IsSameWrite(write, m_told[k])) continue;
        m_told[k] = write;
        Tell(k);
        return true;
    }
    return false;
}

// Anything may have been written before the previous service ended.
void ChangeWatcher::RenewAndTell() {
    for (DWORD k = 1; k < m_count; ++k) {
        m_watches[k].Renew();
        m_handles[k] = m_watches[k].Event();
    }
    for (DWORD k = 1; k < m_count; ++k) {
        ReadLastWrite(m_registration, Entry(k), &m_told[k]);
        Tell(k);
    }
}

// Waits until something happens, including a change of the service.
DWORD ChangeWatcher::WaitIdle() const {
    for (;;) {
        const DWORD result = Wait(m_count > 1 ? g_timings.serviceLook : INFINITE);
        if (result != WAIT_TIMEOUT) return result;
        LookForNewService(m_registration);
        if (ServiceIsNew()) return result;
    }
}

DWORD ChangeWatcher::WaitAwake() {
    const DWORD result = Wait(m_awakeMs);
    if (result != m_lastAwake) {
        m_lastAwake = result;
        m_repeats = 0;
        return result;
    }
    if (++m_repeats <= kRepeatsTrusted) return result;
    m_repeats = 0;
    if (IsChange(result)) ResetEvent(m_handles[result - WAIT_OBJECT_0]);
    return result;
}

void ChangeWatcher::Run() {
    DWORD result = Wait(g_timings.firstLook); // a write may have come before this wait
    for (;;) {
        if (result != WAIT_OBJECT_0 && result != WAIT_FAILED && ServiceIsNew()) {
            RenewAndTell();
        } else if (result == WAIT_TIMEOUT) {
            if (!TellFirstNew()) {
                m_repeats = 0;
                if (!ServiceIsNew()) result = WaitIdle();
                continue;
            }
        } else if (IsChange(result)) {
            const DWORD k = result - WAIT_OBJECT_0;
            ReadLastWrite(m_registration, Entry(k), &m_told[k]);
            if (ServiceIsNew()) continue;
            Tell(k);
        } else {
            return; // the stop event, or a failed wait
        }
        result = WaitAwake();
    }
}

} // namespace

DWORD WINAPI ChangeWatch(void* registration) {
    ChangeWatcher watcher(RegistrationOf(registration), g_timings.changeAwake, nullptr);
    watcher.Run();
    return kWatchEnded;
}

DWORD WINAPI ChangeCallbackWatch(void* registration) {
    CallbackValue value(true);
    ChangeWatcher watcher(RegistrationOf(registration), g_timings.callbackAwake, &value);
    watcher.Run();
    return kWatchEnded;
}

// Watchers of one variable. A pulse during a short delivery is repeated a moment later. After a long delivery, by a
// callback or because the process was stopped, the watcher checks for a write in between.

namespace {

class VariableWatcher {
public:
    // looks: after every delivery.
    VariableWatcher(const NotificationRegistration& registration, bool looks)
        : m_registration(registration), m_looks(looks), m_wait(g_timings.firstLook), m_awakeSince(GetTickCount()) {
        ReadLastWrite(registration, Entry(), &m_told); // what was written before is not news
        m_watch.Begin(registration, Entry().variableName, product::kOnlyChanges);
        ThreadHasBegun(registration.thread);
    }
    VariableWatcher(const VariableWatcher&) = delete;
    VariableWatcher& operator=(const VariableWatcher&) = delete;

    const NotificationEntry& Entry() const { return m_registration.entries[0]; }

    // True when the variable was written, or may have been while the service restarted; false when the watcher has to
    // end.
    bool AwaitWrite() {
        for (;;) {
            if (m_wait == INFINITE && GetTickCount() - m_awakeSince > kPulseComesAgainMs) m_wait = 0;
            const bool idle = m_wait == INFINITE;
            const HANDLE handles[] = {m_registration.thread.stopEvent, m_watch.Event()};
            const DWORD result = WaitForMultipleObjects(2, handles, FALSE, idle ? g_timings.serviceLook : m_wait);
            m_awakeSince = GetTickCount();
            if (result != WAIT_OBJECT_0 + 1 && result != WAIT_TIMEOUT) return false;
            bool isWritten = result == WAIT_OBJECT_0 + 1;
            if (isWritten) {
                m_signals.Count(m_watch.Event());
            } else if (idle) {
                LookForNewService(m_registration);
            } else {
                m_wait = INFINITE;
                isWritten = IsWrittenSince();
            }
            if (m_watch.IsLost()) {
                m_watch.Renew();
                break;
            }
            if (isWritten) break;
        }
        m_wait = m_looks ? 0 : INFINITE;
        return true;
    }

    // Called before the delivery: reads the last write, or takes the time of the clock, because asking the service
    // would delay the delivery.
    void NoteWrite() { ReadLastWrite(m_registration, Entry(), &m_told); }
    void NoteTime() {
        GetSystemTime(&m_told.time);
        m_countIsKnown = false;
    }

private:
    // The clock alone does not distinguish a second write in the millisecond of a delivery. The two are a burst, which
    // ends with a closing pulse.
    bool IsWrittenSince() const {
        LastWrite write;
        if (!ReadLastWrite(m_registration, Entry(), &write)) return false;
        return m_countIsKnown ? !IsSameWrite(write, m_told) : !IsNotEarlier(m_told.time, write.time);
    }

    const NotificationRegistration& m_registration;
    const bool m_looks;
    Watch m_watch;
    DWORD m_wait;       // the first one is short: a write may have come before it
    DWORD m_awakeSince; // tick count
    SignalCount m_signals;
    LastWrite m_told = {}; // the last delivery
    bool m_countIsKnown = true;
};

} // namespace

DWORD WINAPI VariableWatch(void* parameter) {
    VariableWatcher watcher(RegistrationOf(parameter), false);
    while (watcher.AwaitWrite()) {
        watcher.NoteTime();
        Deliver(watcher.Entry());
    }
    return kWatchEnded;
}

DWORD WINAPI VariableCallbackWatch(void* parameter) {
    const NotificationRegistration& registration = RegistrationOf(parameter);
    const NotificationEntry& entry = registration.entries[0];
    CallbackValue value(entry.valueSize == 0);
    VariableWatcher watcher(registration, true);
    while (watcher.AwaitWrite()) {
        watcher.NoteWrite();
        DWORD size = 0;
        const BYTE* bytes = entry.withoutValue != 0 ? nullptr : value.Read(registration, entry, &size);
        CallBack(registration, entry, registration.callbackIndex, bytes, size);
    }
    return kWatchEnded;
}

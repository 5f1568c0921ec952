// The watchers of one variable whose every signal is one delivery.
//
// A pulse reaches only who waits. One that a delivery missed comes once more a moment later; a delivery that took
// longer, be it a callback or that the process stood still, is followed by a look whether there was a write since.
// State: on the watcher's stack.
#include "base/timings.h"
#include "manager/variable_handlers.h"
#include "notify/callback_value.h"
#include "notify/delivery.h"

namespace {

constexpr DWORD kEnded = 1;

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

    // True when the variable was written, or may have been while the service was started anew; false when the watcher
    // is to end.
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

    // Before the delivery, either asks for the write that is told, or takes the time of the clock. To ask the service
    // would hold the delivery up.
    void NoteWrite() { ReadLastWrite(m_registration, Entry(), &m_told); }
    void NoteTime() {
        GetSystemTime(&m_told.time);
        m_countIsKnown = false;
    }

private:
    // By the clock alone a second write in the millisecond of a delivery is not told apart: the two are a burst, whose
    // closing pulse comes.
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
    return kEnded;
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
    return kEnded;
}

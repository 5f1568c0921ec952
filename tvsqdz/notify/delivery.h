// What watcher threads have in common: the watched event of a variable, its last write, and telling the registrant.
#pragma once

#include "base/timings.h"
#include "notify/registration_record.h"

#include <windows.h>

// The event of a variable of the registration's printer, which the service pulses at every write or at every change for
// as long as the watch lives. A service that was started anew knows nothing of it: it is lost then, and renewed by its
// watcher, which tells what may have been missed.
class Watch {
public:
    Watch() = default;
    Watch(const NotificationRegistration& registration, const char* variableName, product::WatchMode mode) {
        Begin(registration, variableName, mode);
    }
    ~Watch() { End(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // variableName stays the caller's.
    void Begin(const NotificationRegistration& registration, const char* variableName, product::WatchMode mode);
    // Null when there is no event; a wait for it then fails, and the watcher ends. Another one after a renewal.
    HANDLE Event() const { return m_event; }
    bool IsLost() const { return PrinterDatabaseOf(*m_registration).handle != m_database; }
    void Renew();

private:
    void End();

    const NotificationRegistration* m_registration = nullptr;
    const char* m_variable = nullptr;
    product::WatchMode m_mode = product::kOnlyChanges;
    DatabaseHandle m_database = 0; // that it was made with
    HANDLE m_event = nullptr;
};

// For a watcher that nothing was told for Timings.serviceLook: opens the manager's databases again if there is a new
// service, whereupon its watches are lost. One watcher of a manager asks for all of them.
void LookForNewService(const NotificationRegistration& registration);

// A watcher that is back within this time has missed no pulse that does not come again.
inline constexpr DWORD kPulseComesAgainMs = 40;

// Notices an event that somebody left set: after more than 100 signals within a second it is reset.
class SignalCount {
public:
    void Count(HANDLE event);

private:
    uint32_t m_signals = 0;
    DWORD m_lastCheck = GetTickCount();
};

// The life of a watcher that works out anew, at every signal, what it watches: tellChange does that, delivers, and
// answers how long to wait until the next look without a signal.
template <typename TellChange> // DWORD()
void WatchUntilStopped(const NotificationRegistration& registration, Watch& watch, DWORD firstLook,
                       TellChange tellChange) {
    SignalCount signals;
    DWORD wait = firstLook; // a write may have come before this wait
    for (;;) {
        const HANDLE handles[] = {registration.thread.stopEvent, watch.Event()};
        const bool idle = wait == INFINITE;
        const DWORD result = WaitForMultipleObjects(2, handles, FALSE, idle ? g_timings.serviceLook : wait);
        if (result == WAIT_OBJECT_0 || result == WAIT_FAILED) return;
        if (result == WAIT_OBJECT_0 + 1) signals.Count(watch.Event());
        if (idle && result == WAIT_TIMEOUT) {
            LookForNewService(registration);
            if (!watch.IsLost()) continue;
        }
        if (watch.IsLost()) watch.Renew();
        wait = tellChange();
    }
}

// By event or message, as the entry says. A window that is gone or whose queue is full is not told.
void Deliver(const NotificationEntry& entry);
// By callback. value: null and size 0 for none.
void CallBack(const NotificationRegistration& registration, const NotificationEntry& entry, uint32_t index,
              const void* value, DWORD size);

// The last write of a variable. The time alone does not tell two apart that follow within a millisecond, or within a
// tick of the system's clock; the count alone could be that of a service that was started anew.
struct LastWrite {
    SYSTEMTIME time;
    DWORD count;
};
// False when the service does not tell.
bool ReadLastWrite(const NotificationRegistration& registration, const NotificationEntry& entry, LastWrite* write);
bool IsSameWrite(const LastWrite& a, const LastWrite& b);
// From the year down to the milliseconds; the day of the week is not looked at.
bool IsNotEarlier(const SYSTEMTIME& time, const SYSTEMTIME& other);

// What watcher threads have in common: the watched event of a variable, its write time, and telling the registrant.
#pragma once

#include "notify/registration_record.h"

#include <windows.h>

// Opens the event of a variable of the registration's printer, which the service pulses at every write or at every
// change, and has it do so. Null when there is no event; a wait for it then fails, and the watcher ends.
HANDLE BeginWatch(const NotificationRegistration& registration, const char* variableName, dblink::WatchMode mode);
void EndWatch(const NotificationRegistration& registration, const char* variableName, HANDLE event);

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
// answers how long to wait until the next look without a signal. changeEvent: of BeginWatch.
template <typename TellChange> // DWORD()
void WatchUntilStopped(HANDLE stopEvent, HANDLE changeEvent, DWORD firstLook, TellChange tellChange) {
    const HANDLE handles[] = {stopEvent, changeEvent};
    SignalCount signals;
    DWORD wait = firstLook; // a write may have come before this wait
    for (;;) {
        const DWORD result = WaitForMultipleObjects(2, handles, FALSE, wait);
        if (result == WAIT_OBJECT_0 || result == WAIT_FAILED) return;
        if (result == WAIT_OBJECT_0 + 1) signals.Count(changeEvent);
        wait = tellChange();
    }
}

// By event or message, as the entry says. A window that is gone or whose queue is full is not told.
void Deliver(const NotificationEntry& entry);
// By callback. value: null and size 0 for none.
void CallBack(const NotificationRegistration& registration, const NotificationEntry& entry, uint32_t index,
              const void* value, DWORD size);

// When the entry's variable was last written; false when the service does not tell.
bool ReadWriteTime(const NotificationRegistration& registration, const NotificationEntry& entry, SYSTEMTIME* time);
// Times are compared from the year down to the milliseconds, and the day of the week not at all. A write counts as
// another one when it is not earlier than a millisecond after the one that was told.
SYSTEMTIME MillisecondAfter(SYSTEMTIME time);
bool IsNotEarlier(const SYSTEMTIME& time, const SYSTEMTIME& other);

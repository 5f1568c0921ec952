// The record of a notification registration: what is watched, how it is told, and the thread that does it.
//
// Made complete before its thread starts; the thread reads it and writes nothing. Every record of a manager's list is
// one of these.
#pragma once

#include "base/timings.h"
#include "manager/thread_records.h"

#include <stddef.h>
#include <stdint.h>
#include <tvsqdz.h>
#include <windows.h>

inline constexpr DWORD kWatchedNameSize = 32; // with its NUL

// Bits of NotificationEntry.mode.
inline constexpr uint32_t NOTIFY_BY_EVENT = 0x001;   // sets the event `target`
inline constexpr uint32_t NOTIFY_BY_MESSAGE = 0x002; // posts `message` to the window `target`
inline constexpr uint32_t NOTIFY_DELEGATED = 0x004;  // served by a registration of its own, whose handle is `target`
inline constexpr uint32_t NOTIFY_ON_UPDATE = 0x100;  // tells every write
inline constexpr uint32_t NOTIFY_ON_CHANGE = 0x200;  // tells writes of another value

struct NotificationEntry {
    uint32_t mode;
    uint32_t withoutValue; // callbacks: not 0 when the callback gets no value
    char variableName[kWatchedNameSize];
    UINT_PTR target;    // event, window, callback or registration
    uint32_t message;   // messages: the number to post
    uint32_t valueSize; // of a value of fixed size; else 0
};

struct NotificationRegistration {
    ThreadRecord thread;
    // Copies of what the manager has; thread.manager keeps them good.
    HANDLE databaseMutex;
    const char* userName;
    TvsManager callbackContext; // the callback's first argument
    uint32_t callbackIndex;     // the second one where a watcher serves a single variable
    uint32_t entryCount;
    NotificationEntry entries[1]; // entryCount of them
};
static_assert(offsetof(NotificationRegistration, thread) == 0);
static_assert(offsetof(NotificationEntry, mode) == 0 && offsetof(NotificationEntry, withoutValue) == 4 &&
              offsetof(NotificationEntry, variableName) == 8 && offsetof(NotificationEntry, target) == 40 &&
              offsetof(NotificationEntry, message) == 40 + sizeof(UINT_PTR));

constexpr uint64_t RegistrationSize(uint32_t entryCount) {
    return offsetof(NotificationRegistration, entries) + uint64_t{sizeof(NotificationEntry)} * entryCount;
}

// What every call of a watcher goes through. In the watcher's thread, which keeps the manager.
inline const ManagerDatabase& PrinterDatabaseOf(const NotificationRegistration& registration) {
    return registration.thread.manager->printerDatabase;
}

inline const NotificationRegistration& RegistrationOf(const void* threadParameter) {
    return *static_cast<const NotificationRegistration*>(threadParameter);
}

// The value that a callback is given: read by its watcher, good for the duration of the call.

class CallbackValue {
public:
    // grows: a value that does not fit is read again with as much room as it needs.
    explicit CallbackValue(bool grows) : m_grows(grows) {}
    ~CallbackValue();
    CallbackValue(const CallbackValue&) = delete;
    CallbackValue& operator=(const CallbackValue&) = delete;

    // The value as the database stores it. Null and *size 0 when it cannot be had, or is larger than its variable's
    // fixed size and may not grow: the callback then learns of the write, and of no bytes that are not the value.
    const BYTE* Read(const NotificationRegistration& registration, const NotificationEntry& entry, DWORD* size);

private:
    static constexpr DWORD kFixedMax = 320; // "PrintingJobInfo2", the largest that is watched on its own

    const BYTE* ReadGrowing(const ManagerDatabase& database, const char* name, DWORD* size);
    void Resize(DWORD capacity);

    bool m_grows;
    BYTE* m_block = nullptr; // of the heap; made when the first value needs it
    DWORD m_capacity = 0;
    alignas(8) BYTE m_fixed[kFixedMax];
};

// What watcher threads have in common: the watched event of a variable, its last write, and telling the registrant.

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

// The exit code of a watch thread that ends by itself.
inline constexpr DWORD kWatchEnded = 1;

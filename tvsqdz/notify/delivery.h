// The notification record, and what all watchers share: the watch of a variable, its last write, the value for a
// callback, the delivery.
//
// A record is complete before its thread starts; the thread only reads it. Every record of a manager's list is one of
// these. State: the records; the rest is on the stacks of watchers.
#pragma once

#include "base/timings.h"
#include "manager/thread_records.h"

#include <stddef.h>
#include <stdint.h>
#include <tvsqdz.h>
#include <windows.h>

inline constexpr DWORD kWatchedNameSize = 32; // including the NUL

// Bits of NotificationEntry.mode.
inline constexpr uint32_t NOTIFY_BY_EVENT = 0x001;   // sets the event `target`
inline constexpr uint32_t NOTIFY_BY_MESSAGE = 0x002; // posts `message` to the window `target`
inline constexpr uint32_t NOTIFY_DELEGATED = 0x004;  // served by its own registration, whose handle is `target`
inline constexpr uint32_t NOTIFY_ON_UPDATE = 0x100;  // delivers every write
inline constexpr uint32_t NOTIFY_ON_CHANGE = 0x200;  // delivers writes that change the value

struct NotificationEntry {
    uint32_t mode;
    uint32_t withoutValue; // callbacks: not 0 when the callback gets no value
    char variableName[kWatchedNameSize];
    UINT_PTR target;    // event, window, callback or registration
    uint32_t message;   // messages: the number to post
    uint32_t valueSize; // of a value of fixed size, else 0
};

struct NotificationRegistration {
    ThreadRecord thread;
    // Copies from the manager; thread.manager keeps them valid.
    HANDLE databaseMutex;
    const char* userName;
    TvsManager callbackContext; // the callback's first argument
    uint32_t callbackIndex;     // the second argument where a watcher serves a single variable
    uint32_t entryCount;
    NotificationEntry entries[1]; // entryCount of them
};
static_assert(offsetof(NotificationRegistration, thread) == 0); // a record of the list is cast to its registration

constexpr uint64_t RegistrationSize(uint32_t entryCount) {
    return offsetof(NotificationRegistration, entries) + uint64_t{sizeof(NotificationEntry)} * entryCount;
}

// For calls of a watcher, in its thread, which keeps the manager alive.
inline const ManagerDatabase& PrinterDatabaseOf(const NotificationRegistration& registration) {
    return registration.thread.manager->printerDatabase;
}

inline const NotificationRegistration& RegistrationOf(const void* threadParameter) {
    return *static_cast<const NotificationRegistration*>(threadParameter);
}

// The value that a watcher reads for a callback, valid during the callback.

class CallbackValue {
public:
    // grows: when a value does not fit, the buffer grows and the value is read again.
    explicit CallbackValue(bool grows) : m_grows(grows) {}
    ~CallbackValue();
    CallbackValue(const CallbackValue&) = delete;
    CallbackValue& operator=(const CallbackValue&) = delete;

    // The value as the database stores it. Null and *size 0 when it cannot be read, or is larger than the fixed size of
    // its variable and the buffer may not grow; the callback then learns of the write without a value.
    const BYTE* Read(const NotificationRegistration& registration, const NotificationEntry& entry, DWORD* size);

private:
    static constexpr DWORD kFixedMax = 320; // "PrintingJobInfo2", the largest that is watched on its own

    const BYTE* ReadGrowing(const ManagerDatabase& database, const char* name, DWORD* size);
    void Resize(DWORD capacity);

    bool m_grows;
    BYTE* m_block = nullptr; // of the heap; allocated for the first value that needs it
    DWORD m_capacity = 0;
    alignas(8) BYTE m_fixed[kFixedMax];
};

// The event of a printer's variable, which the service pulses at every write or at every change while the watch exists.
// A restarted service does not know the watch: it is lost, and its watcher renews it and delivers once for whatever was
// missed.
class Watch {
public:
    Watch() = default;
    Watch(const NotificationRegistration& registration, const char* variableName, product::WatchMode mode) {
        Begin(registration, variableName, mode);
    }
    ~Watch() { End(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // variableName: owned by the caller.
    void Begin(const NotificationRegistration& registration, const char* variableName, product::WatchMode mode);
    // Null when there is no event; a wait for it then fails, and the watcher ends. Changes with a renewal.
    HANDLE Event() const { return m_event; }
    bool IsLost() const { return PrinterDatabaseOf(*m_registration).handle != m_database; }
    void Renew();

private:
    void End();

    const NotificationRegistration* m_registration = nullptr;
    const char* m_variable = nullptr;
    product::WatchMode m_mode = product::kOnlyChanges;
    DatabaseHandle m_database = 0; // in which the watch was made
    HANDLE m_event = nullptr;
};

// For a watcher that was idle for Timings.serviceLook: opens the manager's databases again when there is a new service,
// which makes the watches lost. One watcher asks for all watchers of a manager.
void LookForNewService(const NotificationRegistration& registration);

// A watcher that returns within this time has missed no pulse that is not repeated.
inline constexpr DWORD kPulseComesAgainMs = 40;

// Detects an event that somebody left set: it is reset after more than 100 signals within a second.
class SignalCount {
public:
    void Count(HANDLE event);

private:
    uint32_t m_signals = 0;
    DWORD m_lastCheck = GetTickCount();
};

// The loop of a watcher that computes what it watches. tellChange computes it after every signal, delivers, and returns
// how long to wait before the next look without a signal.
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

// By event or message, as the entry says. A window that is gone or whose queue is full gets nothing.
void Deliver(const NotificationEntry& entry);
// By callback. value: null and size 0 for none.
void CallBack(const NotificationRegistration& registration, const NotificationEntry& entry, uint32_t index,
              const void* value, DWORD size);

// The last write of a variable. The time alone does not distinguish two writes within a millisecond, or within a tick
// of the clock; the count alone could be that of a restarted service.
struct LastWrite {
    SYSTEMTIME time;
    DWORD count;
};
// False when the service does not answer with them.
bool ReadLastWrite(const NotificationRegistration& registration, const NotificationEntry& entry, LastWrite* write);
bool IsSameWrite(const LastWrite& a, const LastWrite& b);
// Compares from the year to the milliseconds, without the day of the week.
bool IsNotEarlier(const SYSTEMTIME& time, const SYSTEMTIME& other);

// The exit code of a watch thread that ends by itself.
inline constexpr DWORD kWatchEnded = 1;

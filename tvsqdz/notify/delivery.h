// The notification record, the value for a callback, and the delivery.
//
// A record is complete before its thread starts; the thread only reads it. Every record of a manager's list is one of
// these. State: the records; the rest is on the stacks of watchers.
#pragma once

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

// By event or message, as the entry says. A window that is gone or whose queue is full gets nothing.
void Deliver(const NotificationEntry& entry);
// By callback, with the value unless the entry wants none.
void CallBackWithValue(const NotificationRegistration& registration, const NotificationEntry& entry, uint32_t index,
                       CallbackValue& value);

// The exit code of a watch thread that ends by itself.
inline constexpr DWORD kWatchEnded = 1;

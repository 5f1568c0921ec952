// The record of a notification registration: what is watched, how it is told, and the thread that does it.
//
// Made complete before its thread starts; the thread reads it and writes nothing. Every record of a manager's list is
// one of these.
#pragma once

#include "manager/thread_records.h"

#include <tvsqdz.h>
#include <windows.h>

#include <stddef.h>
#include <stdint.h>

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

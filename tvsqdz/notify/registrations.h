// Notification registrations that this process serves: making, cancelling and finding them. relayed_registrations.h has
// those that another process serves.
//
// The handle of a registration is the address of its record (delivery.h). A handle is searched for in the manager's
// list, never dereferenced. The caller of every function has a reference to the manager.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "notify/delivery.h"
#include "product/status.h"

#include <stdint.h>
#include <tvsqdz.h>
#include <windows.h>

enum class DeliveryForm { Event, Message, Callback };

// What the registrant sets in an entry.
struct DeliveryTarget {
    UINT_PTR target;     // event, window or callback
    uint32_t number = 0; // the message; for a callback, not 0: no value
};

// Registers one variable. index: the second argument of a callback. TVS_OK and *handle; TVS_E_UNKNOWN for a name longer
// than an entry takes; TVS_E_MEMORY, also when the watcher cannot be started; TVS_E_HANDLE when the manager is no
// longer open. On failure nothing is registered.
Status AddRegistration(ManagerRecord* manager, const StatusVariableDef& variable, DeliveryForm form,
                       const DeliveryTarget& target, uint32_t index, TvsRegistration* handle);

// The same by name, in library memory; TVS_E_UNKNOWN when the manager does not have the variable.
Status AddRegistrationOfName(ManagerRecord* manager, const char* variableName, DeliveryForm form,
                             const DeliveryTarget& target, uint32_t index, TvsRegistration* handle);

Status AddMessageRegistration(ManagerRecord* manager, const char* variableName, HWND window, uint32_t message,
                              TvsRegistration* handle);

// Cancels a registration and those that it delegated to. Nothing is delivered any more on return; that takes at most
// Timings.cancelWait each, since a callback may not return. Called from its own callback it returns at once, and the
// running callback is the last one. TVS_E_HANDLE when the handle is not on the manager's list.
Status KillRegistration(ManagerRecord* manager, TvsRegistration handle) EXCLUDES(g_managerLock);

// The manager's first registration with an entry that posts this message for this variable to this window; 0: none.
TvsRegistration FindMessageRegistration(ManagerRecord* manager, const char* variableName, HWND window, uint32_t message)
    EXCLUDES(g_managerLock);

// Steps of a registration, for one variable and for several.

// False for a name longer than an entry takes.
bool CanBeWatched(const StatusVariableDef& variable);
// The watcher of its own that the variable has for this form; null: the default one serves it.
ThreadProc OwnWatcher(const StatusVariableDef& variable, DeliveryForm form);
ThreadProc DefaultWatcher(DeliveryForm form);
// Creates the record without its entries and its thread; null when out of memory.
NotificationRegistration* NewRegistration(ManagerRecord* manager, uint32_t entryCount);
// Sets everything but the target, in an entry that is zero.
void SetEntry(NotificationEntry& entry, const StatusVariableDef& variable, DeliveryForm form);
void SetTarget(NotificationEntry& entry, DeliveryForm form, const DeliveryTarget& target);
// Starts the watcher and appends the record to the manager's list. On failure the delegated registrations are cancelled
// and the record is freed.
Status StartRegistration(ManagerRecord* manager, NotificationRegistration* registration, ThreadProc watcher,
                         TvsRegistration* handle) EXCLUDES(g_managerLock);

// Registrations of several variables at once.
//
// A variable with a watcher of its own is registered alone, and its entry keeps the handle; one default watcher serves
// all others. Everything that the caller gave is read and checked before anything is registered.

// The caller's arguments. The names and the arrays are caller memory, count elements each.
struct RegistrationList {
    DeliveryForm form;
    uint32_t count;
    const char* names;
    const void* targets;     // events or callbacks, as wide as a pointer each
    HWND window;             // messages
    const uint32_t* numbers; // messages; for callbacks, not 0: no value
};

// TVS_OK and *handle; TVS_E_MEMORY; TVS_E_UNKNOWN for a name that is unknown, missing or too long, and for more
// variables than one watcher serves (63); TVS_E_FAULT for names or arrays that cannot be read and for a null callback;
// TVS_E_HANDLE when the manager is no longer open. On failure nothing is registered.
//
// When the own registration of a variable fails, that variable is not watched; the others are.
Status AddRegistrationList(ManagerRecord* manager, const RegistrationList& list, TvsRegistration* handle);

Status AddMessageRegistrationEx(ManagerRecord* manager, uint32_t count, const char* names, HWND window,
                                const uint32_t* messages, TvsRegistration* handle);

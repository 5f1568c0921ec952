// Notification registrations of this process: making, cancelling and finding them.
//
// A registration's handle is the address of its record (registration_record.h), which only its value says: a handle is
// looked for in the manager's list and never followed. The manager of every call is one that the caller has a reference
// to. Registrations that another process serves are in relayed_registrations.h.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "notify/delivery.h"
#include "product/status.h"

#include <stdint.h>
#include <tvsqdz.h>
#include <windows.h>

enum class DeliveryForm { Event, Message, Callback };

// What of an entry the registrant decides.
struct DeliveryTarget {
    UINT_PTR target;     // event, window or callback
    uint32_t number = 0; // the message; of a callback, whether it gets no value
};

// Registers one variable. index: what a callback is given as its second argument. TVS_OK and *handle; TVS_E_UNKNOWN for
// a name longer than an entry takes; TVS_E_MEMORY, also when the watcher cannot be started; TVS_E_HANDLE when the
// manager is no longer open. On failure nothing is registered.
Status AddRegistration(ManagerRecord* manager, const StatusVariableDef& variable, DeliveryForm form,
                       const DeliveryTarget& target, uint32_t index, TvsRegistration* handle);

// The same by name, which is the library's own memory; TVS_E_UNKNOWN for one that the manager does not have.
Status AddRegistrationOfName(ManagerRecord* manager, const char* variableName, DeliveryForm form,
                             const DeliveryTarget& target, uint32_t index, TvsRegistration* handle);
Status AddMessageRegistration(ManagerRecord* manager, const char* variableName, HWND window, uint32_t message,
                              TvsRegistration* handle);
Status AddCallbackRegistration(ManagerRecord* manager, const char* variableName, TvsCallback callback,
                               uint32_t withoutValue, uint32_t index, TvsRegistration* handle);

// Cancels a registration and those that it delegated to, and returns when nothing is delivered any more: at the latest
// after Timings.cancelWait each, for a callback may not return. From its own callback it returns at once, and the
// callback that runs is the last. TVS_E_HANDLE for what is not on the manager's list.
Status KillRegistration(ManagerRecord* manager, TvsRegistration handle) EXCLUDES(g_managerLock);

// The first registration of the manager with an entry that posts this message for this variable to this window; 0:
// none.
TvsRegistration FindMessageRegistration(ManagerRecord* manager, const char* variableName, HWND window, uint32_t message)
    EXCLUDES(g_managerLock);

// Steps of making one, for registrations of one variable and of several (registration_lists.cpp).

// The longest name that an entry takes is that of a variable it can watch.
bool CanBeWatched(const StatusVariableDef& variable);
// A watcher that the variable has of its own for this form; null: the default serves it.
ThreadProc OwnWatcher(const StatusVariableDef& variable, DeliveryForm form);
ThreadProc DefaultWatcher(DeliveryForm form);
// The record with all but its entries and its thread; null when there is no memory.
NotificationRegistration* NewRegistration(ManagerRecord* manager, uint32_t entryCount);
// Everything but the target; the entry is zero before.
void SetEntry(NotificationEntry& entry, const StatusVariableDef& variable, DeliveryForm form);
void SetTarget(NotificationEntry& entry, DeliveryForm form, const DeliveryTarget& target);
// Starts the watcher and puts the record on the manager's list. On failure what the entries delegate to is cancelled
// and the record is freed.
Status StartRegistration(ManagerRecord* manager, NotificationRegistration* registration, ThreadProc watcher,
                         TvsRegistration* handle) EXCLUDES(g_managerLock);

// Registrations of several variables at once, served by this process.
//
// A variable that has a watcher of its own is registered alone, and its entry keeps the handle; one default watcher
// serves all others. Everything that the caller gave is read and checked before anything is registered.

// The caller's arguments; the names and the arrays are his memory, count elements each.
struct RegistrationList {
    DeliveryForm form;
    uint32_t count;
    const char* names;
    const void* targets;     // events or callbacks, as wide as a pointer each
    HWND window;             // messages
    const uint32_t* numbers; // messages; of callbacks, whether they get no value
};

// TVS_OK and *handle; TVS_E_MEMORY; TVS_E_UNKNOWN for a name that is unknown, missing or too long, and for more
// variables than one watcher serves (63); TVS_E_FAULT for names or arrays that cannot be read and for a callback that
// is none; TVS_E_HANDLE when the manager is no longer open. On failure nothing is registered.
//
// A variable whose own registration fails is not watched; the others are.
Status AddRegistrationList(ManagerRecord* manager, const RegistrationList& list, TvsRegistration* handle);

Status AddMessageRegistrationEx(ManagerRecord* manager, uint32_t count, const char* names, HWND window,
                                const uint32_t* messages, TvsRegistration* handle);

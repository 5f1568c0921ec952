// Registrations of several variables at once, served by this process.
//
// A variable that has a watcher of its own is registered alone, and its entry keeps the handle; one default watcher
// serves all others. Everything that the caller gave is read and checked before anything is registered.
#pragma once

#include "notify/registrations.h"

#include <stdint.h>

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

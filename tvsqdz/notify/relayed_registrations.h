// Message registrations that the printer's owner serves: processes which deliver no messages themselves leave them in
// the variable "NotifyMsg" of the printer's database, a list (values/stored_list.h) of the entries below.
//
// An entry lives until its number is set to 0; the owner takes it out then. Whoever changes the list holds the database
// mutex. The manager of every call is one that the caller has a reference to.
#pragma once

#include "manager/manager_record.h"
#include "notify/delivery.h"
#include "product/status.h"

#include <windows.h>

#include <stddef.h>
#include <stdint.h>

inline constexpr char kRelayedRegistrationsVariable[] = "NotifyMsg";

// 48 bytes, stored.
struct MessageRegistrationEntry {
    uint32_t registrationId; // shared by the entries of one call; 0: cancelled
    uint32_t reserved;       // 0
    uint32_t window;
    uint32_t message;
    char variableName[kWatchedNameSize]; // with its NUL
};
static_assert(sizeof(MessageRegistrationEntry) == 48 && offsetof(MessageRegistrationEntry, reserved) == 4 &&
              offsetof(MessageRegistrationEntry, window) == 8 && offsetof(MessageRegistrationEntry, message) == 12 &&
              offsetof(MessageRegistrationEntry, variableName) == 16);

// Handles of windows have 32 bits that count on every system.
inline HWND WindowFromStored(uint32_t storedWindow) {
    return reinterpret_cast<HWND>(static_cast<LONG_PTR>(static_cast<LONG>(storedWindow)));
}

// Whether this process delivers messages itself, for it has opened a manager of a kind that does.
bool DeliversMessagesItself();
// Whether some process of the machine can serve what is left in a list.
bool OwnerProcessExists();

// The name is the library's own memory, and is not looked up: one that does not exist is never delivered. TVS_OK and
// *handle, TVS_E_MEMORY, or the answer of the service; on failure the list is as it was.
Status AddRelayedRegistration(ManagerRecord* manager, const char* variableName, HWND window, uint32_t message,
                              TvsRegistration* handle);
// names, messages: the caller's memory. Also TVS_E_UNKNOWN for a name that is unknown or missing, TVS_E_FAULT.
Status AddRelayedRegistrations(ManagerRecord* manager, uint32_t count, const char* names, HWND window,
                               const uint32_t* messages, TvsRegistration* handle);
// Cancels all entries of the number; one that no entry has is TVS_OK too.
Status CancelRelayedRegistration(ManagerRecord* manager, TvsRegistration handle);

// Message registrations that the printer's owner serves. Processes that deliver no messages themselves put them into
// the variable "NotifyMsg" of the printer's database, a list (values/stored_list.h) of the entries below.
//
// An entry is cancelled by setting its number to 0; the owner then removes it. Whoever changes the list holds the
// database mutex. The caller of every function has a reference to the manager.
#pragma once

#include "manager/manager_record.h"
#include "notify/delivery.h"
#include "product/mailboxes.h"
#include "product/status.h"

#include <windows.h>

#include <stddef.h>
#include <stdint.h>

// 48 bytes, stored.
struct MessageRegistrationEntry {
    uint32_t registrationId; // shared by the entries of one call; 0: cancelled
    uint32_t reserved;       // 0
    uint32_t window;
    uint32_t message;
    char variableName[kWatchedNameSize]; // including the NUL
};
static_assert(sizeof(MessageRegistrationEntry) == 48 && offsetof(MessageRegistrationEntry, reserved) == 4 &&
              offsetof(MessageRegistrationEntry, window) == 8 && offsetof(MessageRegistrationEntry, message) == 12 &&
              offsetof(MessageRegistrationEntry, variableName) == 16);

// Window handles have 32 significant bits on every system.
inline HWND WindowFromStored(uint32_t storedWindow) {
    return reinterpret_cast<HWND>(static_cast<LONG_PTR>(static_cast<LONG>(storedWindow)));
}

// True when this process delivers messages itself, because it has opened a manager of a kind that does.
bool DeliversMessagesItself();
// True when some process of the machine can serve the list.
bool OwnerProcessExists();

// The name is library memory and is not looked up; a variable that does not exist is never delivered. TVS_OK and
// *handle, TVS_E_MEMORY, or the answer of the service; on failure the list is unchanged.
Status AddRelayedRegistration(ManagerRecord* manager, const char* variableName, HWND window, uint32_t message,
                              TvsRegistration* handle);
// names, messages: caller memory. Also TVS_E_UNKNOWN for a name that is unknown or missing, TVS_E_FAULT.
Status AddRelayedRegistrations(ManagerRecord* manager, uint32_t count, const char* names, HWND window,
                               const uint32_t* messages, TvsRegistration* handle);
// Cancels all entries with the number; TVS_OK also when there are none.
Status CancelRelayedRegistration(ManagerRecord* manager, TvsRegistration handle);
// True for a registration that was relayed for this manager and not cancelled through it.
bool IsRelayed(ManagerRecord* manager, TvsRegistration handle);
// Cancels those that were relayed for a manager that is closed.
void CancelRelayedRegistrations(ManagerRecord* manager);

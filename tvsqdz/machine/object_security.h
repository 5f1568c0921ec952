// The security of every kernel object that the library creates: full access for everyone, so that the processes of all
// users of the machine meet on the same objects.
#pragma once

#include "machine/process_state.h"

#include <windows.h>

// One entry of an access control list that allows.
struct AccessEntry {
    PSID sid;
    ACCESS_MASK mask;
    BYTE aceFlags;
};

// Builds a self-relative descriptor in a block of the heap: no owner, the group given, no system list, a discretionary
// list of the entries in their order. False when there is no memory or a part is invalid; *descriptor is then null.
bool BuildSecurityDescriptor(const AccessEntry* entries, DWORD count, PSID group, PSECURITY_DESCRIPTOR* descriptor);

// The descriptor of the library's objects; null when it cannot be built.
PSECURITY_DESCRIPTOR BuildObjectSecurity();

// The attributes that objects are created with: none on Windows 95/98/Me, and until the process's first open. From then
// on they stay as they are until the detach, so they are read without the lock.
SECURITY_ATTRIBUTES* ObjectSecurity();
// Builds them if they do not exist yet; false when that fails.
bool EnsureObjectSecurity() REQUIRES(g_managerLock);
void FreeObjectSecurity();

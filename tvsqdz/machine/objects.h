// Names of the kernel objects that the library shares with other processes, and their opening.
//
// Other processes must arrive at the same name, so these are an external interface. "Rule": with Terminal Services the
// name is "Global\" and the base name.
#pragma once

#include "machine/process_state.h"
#include "product/object_names.h"

#include <windows.h>

// Rule. The database mutex, which the product's other programs take too.
using product::kDatabaseMutexName;
// Rule, the printer's database name appended. The request mutex of a printer: one request at a time.
inline constexpr char kRequestMutexPrefix[] = "TVORSQD:ReqMutex:";
// Plain. Exists while the product's start-up process runs.
inline constexpr char kStartUpMutexName[] = "TVORPWDMutex";

// The base name by the rule. The name of a name that is too long is empty.
product::KernelName ObjectName(const char* baseName);
// "TVORSQD:ReqMutex:<database>", by the rule.
product::KernelName RequestMutexName(const char* databaseName);

// Creates the mutex, not owned, or opens the one that this caller may not create, for waiting. Null when neither can be
// had.
HANDLE CreateOrOpenMutex(const product::KernelName& name);
// A manual-reset event, not signalled unless it existed.
HANDLE CreateNamedEvent(const product::KernelName& name);

// The security of every kernel object that the library creates: full access for everyone, so that the processes of all
// users of the machine meet on the same objects.

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

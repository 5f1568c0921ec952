// Kernel objects that the library shares with other processes: names, creation, security. The names are an external
// interface: other programs form the same ones. "Rule": with Terminal Services a name is "Global\" and the base name,
// else the base name. State: the security attributes.
#pragma once

#include "machine/process_state.h"
#include "product/object_names.h"

#include <windows.h>

// Rule. The database mutex, which the product's other programs take too.
using product::kDatabaseMutexName;
// Rule, followed by the printer's database name. The request mutex of a printer: one request at a time.
inline constexpr char kRequestMutexPrefix[] = "TVORSQD:ReqMutex:";

// The name by the rule; empty when it would be too long.
product::KernelName ObjectName(const char* baseName);
// "TVORSQD:ReqMutex:<database>", by the rule.
product::KernelName RequestMutexName(const char* databaseName);

// Creates the mutex without owning it. When the caller may not create it, opens the existing one for waiting. Null when
// neither works.
HANDLE CreateOrOpenMutex(const product::KernelName& name);
// A manual-reset event; not set, unless it existed and was.
HANDLE CreateNamedEvent(const product::KernelName& name);

// Every object that the library creates grants full access to everyone, so that the processes of all users share the
// same objects.

// The attributes for creating objects: null on Windows 95/98/Me and until the first open of the process. They do not
// change after that until the detach, so they are read without the lock.
SECURITY_ATTRIBUTES* ObjectSecurity();
// Builds them unless they exist; false on failure.
bool EnsureObjectSecurity() REQUIRES(g_managerLock);
void FreeObjectSecurity();

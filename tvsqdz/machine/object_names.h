// Names of the kernel objects that the library shares with other processes, and their opening.
//
// Other processes must arrive at the same name, so these are an external interface. "Rule": with Terminal Services the
// name is "Global\" and the base name.
#pragma once

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

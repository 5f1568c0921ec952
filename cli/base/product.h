// The product as it is installed and runs on this machine: its registry key, its service, its kernel objects.
#pragma once

#include "base/failure.h"
#include "base/handles.h"

#include "product/interface.h"
#include "product/program_names.h"
#include "product/registry_names.h"

#include <optional>
#include <string>

using product::kServiceName;
inline constexpr char kServiceDisplayName[] = "Oriel status database";
inline constexpr char kServiceKey[] = "SYSTEM\\CurrentControlSet\\Services\\TVORSDB";

// The installation directory as registered, ending with a backslash; nothing when none is registered.
std::optional<std::string> InstalledDirectory();
// The path of this program; its directory, ending with a backslash.
std::string OwnProgram();
std::string OwnDirectory();

// The name of an object that all sessions of the machine share: with the prefix "Global\" on Terminal Services.
std::string SharedName(const char* name);
// "5.1.2600"; "unknown" when the system does not say.
std::string SystemVersion();

// SERVICE_RUNNING and the like, 0 when the service is not installed.
DWORD ServiceState();
const char* ServiceStateName(DWORD state);
bool ProductInitialised();

// "start it with 'oriel up'", in the form that suits the product that this command talks to.
std::string HowToStart();

// Finds out why the library could not open a manager, for which it has one code. lastError: after the failed open.
Failure WhyUnavailable(const std::string& what, uint32_t clientKind, DWORD lastError);

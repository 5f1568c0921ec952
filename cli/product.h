// The product as it is installed and runs on this machine: its registry key, its service, its kernel objects.
#pragma once

#include "failure.h"
#include "handles.h"

#include "product/interface.h"
#include "product/program_names.h"
#include "product/registry_names.h"

#include <optional>
#include <string>

using product::kServiceName;
inline constexpr char kServiceDisplayName[] = "Oriel status database";
inline constexpr char kServiceKey[] = "SYSTEM\\CurrentControlSet\\Services\\TVORSDB";

// The folder of the product, ending with a backslash, as registered; nothing when it is not.
std::optional<std::string> InstalledDirectory();
// The path of this program; its folder, ending with a backslash.
std::string OwnProgram();
std::string OwnDirectory();
bool FileExists(const std::string& path);

// The name of an object that all sessions of the machine share: "Global\" before it on Terminal Services.
std::string SharedName(const char* name);
// "5.1.2600", and whether it is a Terminal Services system.
std::string SystemVersion();

// SERVICE_RUNNING and the like, 0 when the service is not installed.
DWORD ServiceState();
const char* ServiceStateName(DWORD state);
bool ProductInitialised();

// "start it with 'oriel up'", as it is done for the product that this command talks to.
std::string HowToStart();

// Tells why the library could open no manager: it has one code for all reasons. lastError: what the failed open left.
Failure WhyUnavailable(const std::string& what, uint32_t clientKind, DWORD lastError);

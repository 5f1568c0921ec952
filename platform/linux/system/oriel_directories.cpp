// The directories of the layer, for programs above it. State: in directories.cpp.
#include "base/call.h"
#include <oriel_directories.h>

#include "base/directories.h"

#include <cstring>
#include <errhandlingapi.h>
#include <winerror.h>

using namespace oriel;

const char* WINAPI OrielStateDirectory() {
    return StateDirectoryName().c_str();
}

const char* WINAPI OrielRuntimeDirectory() {
    return RuntimeDirectoryName().c_str();
}

const char* WINAPI OrielScope() {
    switch (TheScope()) {
    case Scope::System:
        return "system";
    case Scope::User:
        return "user";
    case Scope::Named:
        return "";
    case Scope::Wrong:
        break;
    }
    return nullptr;
}

BOOL WINAPI OrielChooseScope(const char* scope) {
    const bool system = std::strcmp(scope, "system") == 0;
    if (!system && std::strcmp(scope, "user") != 0) return FALSE;
    return ChooseScope(system ? Scope::System : Scope::User);
}

void WINAPI OrielOnlyLook() {
    OnlyLook();
}

BOOL WINAPI OrielClaimDirectories() {
    if (ClaimDirectories()) return TRUE;
    return Fail(ERROR_ACCESS_DENIED);
}

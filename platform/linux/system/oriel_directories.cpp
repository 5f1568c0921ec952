// The directories of the layer, for programs above it. State: in directories.cpp.
#include <oriel_directories.h>

#include "base/directories.h"

#include <cstring>
#include <errhandlingapi.h>
#include <winerror.h>

const char* WINAPI OrielStateDirectory() {
    return oriel::StateDirectoryName().c_str();
}

const char* WINAPI OrielRuntimeDirectory() {
    return oriel::RuntimeDirectoryName().c_str();
}

const char* WINAPI OrielScope() {
    switch (oriel::TheScope()) {
    case oriel::Scope::System:
        return "system";
    case oriel::Scope::User:
        return "user";
    case oriel::Scope::Named:
        return "";
    case oriel::Scope::Wrong:
        break;
    }
    return nullptr;
}

BOOL WINAPI OrielChooseScope(const char* scope) {
    const bool system = std::strcmp(scope, "system") == 0;
    if (!system && std::strcmp(scope, "user") != 0) return FALSE;
    return oriel::ChooseScope(system ? oriel::Scope::System : oriel::Scope::User);
}

void WINAPI OrielOnlyLook() {
    oriel::OnlyLook();
}

BOOL WINAPI OrielClaimDirectories() {
    if (oriel::ClaimDirectories()) return TRUE;
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

// The frame of a wide export that converts nothing but a variable's name and leaves the rest to its ANSI form.
#pragma once

#include "catalogue/variable_lookup.h"
#include "frame/caller_memory.h"
#include "frame/manager_record.h"
#include "frame/status.h"

// The handle comes first, as in the ANSI forms.
inline Status RefuseName(TvsManager manager, Status status) {
    const ManagerCall call(manager);
    return call ? status : TVS_E_HANDLE;
}

template <typename AnsiForm> // Status(const char* name)
Status WithName(TvsManager manager, const WCHAR* callersName, AnsiForm ansiForm) {
    char name[kWideVariableNameSize];
    switch (ReadCallerName(name, callersName)) {
    case CallerText::Read:
        return ansiForm(name);
    case CallerText::Fault:
        return RefuseName(manager, TVS_E_FAULT);
    case CallerText::TooLong:
        break;
    }
    return RefuseName(manager, TVS_E_UNKNOWN);
}

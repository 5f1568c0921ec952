// The frame of a wide export that converts only the name of the variable and then calls its ANSI form. No state.
#pragma once

#include "base/memory.h"
#include "manager/manager_record.h"
#include "manager/variable_index.h"
#include "product/status.h"

// The handle is checked first, as in the ANSI forms.
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

// Finding a variable of a manager by its name.
#pragma once

#include "catalogue/status_variable.h"
#include "frame/manager_record.h"
#include "frame/status.h"

// Of the longest name that the service takes, its NUL included. No printer defines a longer one.
inline constexpr DWORD kVariableNameSize = dblink::kVariableNameMax + 1;
// The wide exports take shorter ones.
inline constexpr DWORD kWideVariableNameSize = 32;

// The row of that name, or null. Names are compared exactly, and ordered as lstrcmpA orders.
const StatusVariableDef* FindStatusVariable(const ManagerRecord* manager, const char* name);

// The row that the caller's name designates. TVS_OK, TVS_E_FAULT, or TVS_E_UNKNOWN also for a name that is too long to
// be one.
Status FindCallersVariable(const ManagerRecord* manager, const char* callersName, const StatusVariableDef** variable);
Status FindCallersVariable(const ManagerRecord* manager, const WCHAR* callersName, const StatusVariableDef** variable);

// The type under which the database stores a variable; false for those that are not stored as plain ones: composites,
// queues, extended types and codes that are none.
bool DatabaseTypeOf(uint32_t flags, dblink::DatabaseType* type);

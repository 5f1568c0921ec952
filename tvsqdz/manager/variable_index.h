// The status variables of one manager's printer: the built-in ones merged with those that its printer model adds or
// replaces.
//
// A value of the model's registry key is u32 size, u32 flags, and the initial value of that size; for a queue the size
// is that of an item and 4 bytes follow that do not count. A value of another length, or with a name longer than the
// service takes, is skipped.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/status.h"

// Sets variableIndex, variableCount and extraVariables. False when the printer has no driver or there is no memory;
// what was set by then is freed with the manager.
bool BuildVariableIndex(ManagerRecord* manager);
void FreeVariables(ManagerRecord* manager);

// What the members take in a composite, as the manager's index has them; 0 when one is not there.
uint32_t CompositeSize(const ManagerRecord* manager, const char* members);

// Finding a variable of a manager by its name.

// Of the longest name that the service takes, its NUL included. No printer defines a longer one.
inline constexpr DWORD kVariableNameSize = product::kVariableNameMax + 1;
// The wide exports take shorter ones.
inline constexpr DWORD kWideVariableNameSize = 32;

// The row of that name, or null. Names are compared exactly, and ordered as lstrcmpA orders.
const StatusVariableDef* FindStatusVariable(const ManagerRecord* manager, const char* name);

// The row that the caller's name designates. TVS_OK, TVS_E_FAULT, or TVS_E_UNKNOWN also for a name that is too long to
// be one.
Status FindCallersVariable(const ManagerRecord* manager, const char* callersName, const StatusVariableDef** variable);
Status FindCallersVariable(const ManagerRecord* manager, const WCHAR* callersName, const StatusVariableDef** variable);

// The frame of an export that works on one variable: the manager, the variable, and then what it does.
template <typename Character, typename Operation> // Status(ManagerRecord* manager, const StatusVariableDef& variable)
Status WithVariable(TvsManager handle, const Character* callersName, Operation operation) {
    const ManagerCall call(handle);
    if (!call) return TVS_E_HANDLE;
    const StatusVariableDef* found = nullptr;
    if (const Status status = FindCallersVariable(call.Manager(), callersName, &found); status != TVS_OK) return status;
    return operation(call.Manager(), *found);
}

// The type under which the database stores a variable; false for those that are not stored as plain ones: composites,
// queues, extended types and codes that are none.
bool DatabaseTypeOf(uint32_t flags, product::DatabaseType* type);

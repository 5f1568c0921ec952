// The status variables of one manager's printer: the built-in ones merged with those that its printer model adds or
// replaces.
//
// A value of the model's registry key is u32 size, u32 flags, and the initial value of that size; for a queue the size
// is that of an item and 4 bytes follow that do not count. A value of another length, or with a name longer than the
// service takes, is skipped.
#pragma once

#include "manager/manager_record.h"

// Sets variableIndex, variableCount and extraVariables. False when the printer has no driver or there is no memory;
// what was set by then is freed with the manager.
bool BuildVariableIndex(ManagerRecord* manager);
void FreeVariables(ManagerRecord* manager);

// What the members take in a composite, as the manager's index has them; 0 when one is not there.
uint32_t CompositeSize(const ManagerRecord* manager, const char* members);

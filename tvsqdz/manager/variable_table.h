// The built-in status variables.
#pragma once

#include "manager/status_variable.h"

// In the order of their names, ended by a row without a name. At process attach the rows are counted (g_variableCount).
extern const StatusVariableDef kStatusVariables[];

uint32_t CountStatusVariables();

// The empty variable-length value in its stored form, and the empty queue: 8 bytes.
extern const uint32_t kEmptyVariableValue[2];

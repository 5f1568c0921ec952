// Copies of persistent variables in the printer's driver data: registry values "SQD_<variable>" below the printer's
// key, which outlive every database.
//
// The registry type and the bytes follow the variable's type: numbers REG_DWORD (with 1, 2 or 4 bytes), texts REG_SZ,
// records and variable-length values REG_BINARY (the latter without their length).
#pragma once

#include "manager/status_variable.h"

#include <windows.h>

// The size of the copy in the form in which the database stores the value: a variable-length one with its length first.
// 0: there is no copy. With a buffer the copy is read into it; 0 also when it does not fit.
DWORD ReadDriverDataValue(const char* printerName, const StatusVariableDef& variable, void* buffer, DWORD capacity);

// True when the registry holds the data afterwards. data: a value as callers have it, of size bytes. A copy that holds
// the same bytes is left alone.
bool WriteDriverDataValue(const char* printerName, const StatusVariableDef& variable, const void* data, DWORD size);

// What an administrator sets of the service: values of the product's key, HKLM\SOFTWARE\Tavik\Oriel. No state.
#pragma once

#include <windows.h>

// False when there is no value of that type and at most that size. A text is cut off at its NUL, or ends with the
// value: room has a byte more than size for it.
bool ReadSetting(const char* name, DWORD type, void* value, DWORD size);

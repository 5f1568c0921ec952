// Stands in for the layer's header where the registry is the system's own: a test that asks for .reg text is skipped.
#pragma once

#include "not_here.h"

#include <windows.h>

inline LSTATUS RegImportTextA(const char*, SIZE_T, DWORD*) {
    NotHere(".reg text");
}

inline LSTATUS RegExportTextA(HKEY, const char*, char*, SIZE_T*) {
    NotHere(".reg text");
}

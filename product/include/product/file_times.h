// Times as one number: UTC, in 100 ns since 1601, as a FILETIME has them in two. No state.
#pragma once

#include <windows.h>

namespace product {

inline ULONGLONG ToTime(const FILETIME& file) {
    return ULONGLONG{file.dwHighDateTime} << 32 | file.dwLowDateTime;
}

// 0 for a time that is none.
inline ULONGLONG ToTime(const SYSTEMTIME& system) {
    FILETIME file = {};
    return SystemTimeToFileTime(&system, &file) ? ToTime(file) : 0;
}

inline SYSTEMTIME ToSystemTime(ULONGLONG time) {
    const FILETIME file{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
    SYSTEMTIME system = {};
    FileTimeToSystemTime(&file, &system);
    return system;
}

} // namespace product

// The two clocks: the time of day for write times, and milliseconds that only go forward for pulses.
#pragma once

#include <windows.h>

inline constexpr ULONGLONG kWriteTimeStep = 10000; // a millisecond, which is what a SYSTEMTIME can tell

// UTC, in 100 ns since 1601, cut to the millisecond.
inline ULONGLONG WriteTimeNow() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const ULONGLONG time = ULONGLONG{now.dwHighDateTime} << 32 | now.dwLowDateTime;
    return time - time % kWriteTimeStep;
}

inline SYSTEMTIME ToSystemTime(ULONGLONG time) {
    const FILETIME file{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
    SYSTEMTIME system = {};
    FileTimeToSystemTime(&file, &system);
    return system;
}

// Tick counts wrap after 49.7 days; two of them that are less than half of that apart compare by their difference.
inline bool TickReached(DWORD now, DWORD due) {
    return static_cast<LONG>(now - due) >= 0;
}

// Which Windows this is.
#pragma once

#include <windows.h>

#include <stdint.h>

// Bits of ManagerRecord.flags; at most one of them is set.
inline constexpr uint32_t OsWindows9x = 0x01000000; // Windows 95, 98, Me
inline constexpr uint32_t OsNt350 = 0x02000000;     // Windows NT 3.50
inline constexpr uint32_t OsNt351 = 0x04000000;     // Windows NT 3.51
inline constexpr uint32_t OsNtLater = 0x08000000;   // every later Windows NT
inline constexpr uint32_t OsNtAny = OsNt350 | OsNt351 | OsNtLater;

// All zero when it cannot be told.
OSVERSIONINFOA SystemVersion();

// One of them, or 0 for a Windows before NT 3.50 and any other platform.
uint32_t PlatformBit();

// Whether the system runs Terminal Services.
bool RunsTerminalServices();

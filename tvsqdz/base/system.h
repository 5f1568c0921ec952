// The Windows version, the own executable, and texts of the registry. No state.
#pragma once

#include "product/guards.h"

#include <stdint.h>
#include <windows.h>

// Bits of ManagerRecord.flags; at most one of them is set.
inline constexpr uint32_t OsWindows9x = 0x01000000; // Windows 95, 98, Me
inline constexpr uint32_t OsNt350 = 0x02000000;     // Windows NT 3.50
inline constexpr uint32_t OsNt351 = 0x04000000;     // Windows NT 3.51
inline constexpr uint32_t OsNtLater = 0x08000000;   // every later Windows NT
inline constexpr uint32_t OsNtAny = OsNt350 | OsNt351 | OsNtLater;

// All zero when it cannot be determined.
OSVERSIONINFOA SystemVersion();

// One of the bits above; 0 for a Windows before NT 3.50 and any other platform.
uint32_t PlatformBit();

// Whether the calling process runs one of the product's executables.

bool IsOwnProcess();

// Texts in the registry. Their contents are not trusted: they are bounded and terminated here.

// Reads a value as text, up to its first NUL. False when it is missing or longer than the buffer.
bool ReadRegistryText(HKEY key, const char* valueName, char* buffer, DWORD capacity);

// A value of any length as text in a heap block; null when it is missing or out of memory.
char* CopyRegistryText(HKEY key, const char* valueName);

// "DIRPATH", which ends with a backslash, followed by a file name. False when the value or its key is missing.
struct InstalledFile {
    char path[300];
};
bool FindInstalledFile(const char* fileName, InstalledFile& file);

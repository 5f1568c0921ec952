// Texts in the registry. What a value holds is anybody's: it is bounded and terminated here.
#pragma once

#include "product/guards.h"

#include <windows.h>

// The product's key, and the value that names the directory it is installed in.
inline constexpr char kProductKey[] = "SOFTWARE\\Tavik\\Oriel";

// Reads a value as a text, up to its first NUL. False when it is missing or longer than the buffer.
bool ReadRegistryText(HKEY key, const char* valueName, char* buffer, DWORD capacity);

// A value of any length as a text in a block of its own; null when it is missing or there is no memory.
char* CopyRegistryText(HKEY key, const char* valueName);

// "DIRPATH", which ends with a backslash, followed by a file name. False when the value or its key is missing.
struct InstalledFile {
    char path[300];
};
bool FindInstalledFile(const char* fileName, InstalledFile& file);

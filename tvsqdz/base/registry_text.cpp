// Reads of the registry that end in a text, whatever the value's type says.
#include "base/registry_text.h"

#include "base/heap.h"

#include <stdio.h>

namespace {

constexpr char kInstallDirectoryValue[] = "DIRPATH";
constexpr DWORD kInstallDirectorySize = 260;

} // namespace

bool ReadRegistryText(HKEY key, const char* valueName, char* buffer, DWORD capacity) {
    DWORD size = capacity - 1; // one byte for the NUL that the value need not have
    if (RegQueryValueExA(key, valueName, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size) != ERROR_SUCCESS)
        return false;
    buffer[size] = '\0';
    return true;
}

char* CopyRegistryText(HKEY key, const char* valueName) {
    DWORD size = 0;
    if (RegQueryValueExA(key, valueName, nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS) return nullptr;
    HeapBlock text(SIZE_T{size} + 1);
    if (text.memory == nullptr) return nullptr;
    if (RegQueryValueExA(key, valueName, nullptr, nullptr, text.memory, &size) != ERROR_SUCCESS) return nullptr;
    return reinterpret_cast<char*>(text.Take());
}

bool FindInstalledFile(const char* fileName, InstalledFile& file) {
    const RegistryKey product(HKEY_LOCAL_MACHINE, kProductKey, KEY_QUERY_VALUE);
    char directory[kInstallDirectorySize + 1];
    if (!product || !ReadRegistryText(product.key, kInstallDirectoryValue, directory, sizeof directory)) return false;
    // Appended as it is: a directory without its backslash names another file.
    return snprintf(file.path, sizeof file.path, "%s%s", directory, fileName) < static_cast<int>(sizeof file.path);
}

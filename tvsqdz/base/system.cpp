// The Windows version, the own executable and texts of the registry. The version is determined at each open and
// restart, so that a change of the emulated one takes effect at once. No state.
#include "base/system.h"

#include "base/memory.h"
#include "product/registry_names.h"

#include <stdio.h>
#include <windows.h>

OSVERSIONINFOA SystemVersion() {
    OSVERSIONINFOA version = {};
    version.dwOSVersionInfoSize = sizeof version;
    // A version that cannot be read stays all zero, which no platform has.
    if (!GetVersionExA(&version)) version = {};
    return version;
}

uint32_t PlatformBit() {
    const OSVERSIONINFOA version = SystemVersion();
    if (version.dwPlatformId == VER_PLATFORM_WIN32_WINDOWS) return OsWindows9x;
    if (version.dwPlatformId != VER_PLATFORM_WIN32_NT) return 0;
    if (version.dwMajorVersion > 3) return OsNtLater;
    if (version.dwMajorVersion < 3 || version.dwMinorVersion < 50) return 0;
    if (version.dwMinorVersion == 50) return OsNt350;
    return version.dwMinorVersion == 51 ? OsNt351 : OsNtLater;
}

namespace {

constexpr const char* kOwnExecutables[] = {"TVORSN.EXE", "TVORS9.EXE", "TVPILN.EXE", "TVRMMN.EXE", "TVRMM9.EXE"};

// The second byte of a double-byte character may equal a backslash.
const char* BehindLastBackslash(const char* path) {
    const char* fileName = path;
    while (*path != '\0') {
        const bool lead = IsDBCSLeadByte(static_cast<BYTE>(*path)) != FALSE;
        const bool backslash = !lead && *path == '\\';
        ++path;
        if (lead && *path != '\0') ++path;
        if (backslash) fileName = path;
    }
    return fileName;
}

} // namespace

bool IsOwnProcess() {
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0 || length >= sizeof path) return false; // a cut path ends elsewhere
    const char* fileName = BehindLastBackslash(path);
    for (const char* own : kOwnExecutables)
        if (lstrcmpiA(fileName, own) == 0) return true;
    return false;
}

// Registry values as texts, whatever type they have.

namespace {

constexpr DWORD kInstallDirectorySize = 260;

} // namespace

bool ReadRegistryText(HKEY key, const char* valueName, char* buffer, DWORD capacity) {
    DWORD size = capacity - 1; // one byte for the NUL, which the value may lack
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
    const RegistryKey product = OpenKey(HKEY_LOCAL_MACHINE, kProductKey, KEY_QUERY_VALUE);
    char directory[kInstallDirectorySize + 1];
    if (!product || !ReadRegistryText(product.Get(), kDirectoryValue, directory, sizeof directory)) return false;
    // Appended unchanged: a directory without its backslash names another file.
    return snprintf(file.path, sizeof file.path, "%s%s", directory, fileName) < static_cast<int>(sizeof file.path);
}

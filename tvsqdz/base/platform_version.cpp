// Asked at each open and each restart: a test, or a user who changes the emulated version, sees it at once.
#include "base/platform_version.h"

#include "base/heap.h"
#include "product/object_names.h"

OSVERSIONINFOA SystemVersion() {
    OSVERSIONINFOA version = {};
    version.dwOSVersionInfoSize = sizeof version;
    // A version that cannot be read stays all zero, which is no platform.
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

bool RunsTerminalServices() {
    const OSVERSIONINFOA version = SystemVersion();
    return product::IsTerminalServer(version.dwMajorVersion, version.dwMinorVersion, g_heap);
}

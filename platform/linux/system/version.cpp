// The version of the emulated Windows. Kept in the environment or the registry, read at each call.
#include "base/call.h"

#include <sysinfoapi.h>
#include <winreg.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <string_view>

namespace oriel {
namespace {

struct Version {
    DWORD platform = VER_PLATFORM_WIN32_NT;
    DWORD major = 5;
    DWORD minor = 1;
    DWORD build = 2600;
};

// The build that a version came with, for settings that do not name one.
constexpr Version kReleases[] = {
    {VER_PLATFORM_WIN32_NT, 3, 50, 807},       {VER_PLATFORM_WIN32_NT, 3, 51, 1057},
    {VER_PLATFORM_WIN32_NT, 4, 0, 1381},       {VER_PLATFORM_WIN32_NT, 5, 0, 2195},
    {VER_PLATFORM_WIN32_NT, 5, 1, 2600},       {VER_PLATFORM_WIN32_NT, 5, 2, 3790},
    {VER_PLATFORM_WIN32_NT, 6, 0, 6002},       {VER_PLATFORM_WIN32_NT, 6, 1, 7601},
    {VER_PLATFORM_WIN32_NT, 6, 2, 9200},       {VER_PLATFORM_WIN32_NT, 6, 3, 9600},
    {VER_PLATFORM_WIN32_NT, 10, 0, 19045},     {VER_PLATFORM_WIN32_WINDOWS, 4, 0, 950},
    {VER_PLATFORM_WIN32_WINDOWS, 4, 10, 1998}, {VER_PLATFORM_WIN32_WINDOWS, 4, 90, 3000},
};

DWORD BuildOf(const Version& version) {
    for (const Version& release : kReleases)
        if (release.platform == version.platform && release.major == version.major && release.minor == version.minor)
            return release.build;
    return 0;
}

// Takes a number from the front of the text.
bool TakeNumber(std::string_view& text, DWORD& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

bool TakePoint(std::string_view& text) {
    if (!text.starts_with('.')) return false;
    text.remove_prefix(1);
    return true;
}

// [9x:]major.minor[.build]
bool ParseVersion(std::string_view text, Version& version) {
    constexpr std::string_view kWindows9x = "9x:";
    if (text.starts_with(kWindows9x)) {
        version.platform = VER_PLATFORM_WIN32_WINDOWS;
        text.remove_prefix(kWindows9x.size());
    }
    if (!TakeNumber(text, version.major) || !TakePoint(text) || !TakeNumber(text, version.minor)) return false;
    version.build = BuildOf(version);
    return text.empty() || (TakePoint(text) && TakeNumber(text, version.build) && text.empty());
}

enum class Setting { kAbsent, kGiven, kMalformed };

// A text value of at most 31 characters, without its NUL.
Setting ReadText(HKEY key, const char* name, char (&text)[32]) {
    DWORD size = sizeof text - 1;
    DWORD type = REG_NONE;
    const LSTATUS status = RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text), &size);
    if (status == ERROR_FILE_NOT_FOUND) return Setting::kAbsent;
    if (status != ERROR_SUCCESS || type != REG_SZ) return Setting::kMalformed;
    text[size] = '\0';
    return Setting::kGiven;
}

Setting ReadVersion(HKEY key, Version& version) {
    char text[32];
    const Setting setting = ReadText(key, "CurrentVersion", text);
    if (setting == Setting::kMalformed) return setting;
    if (setting == Setting::kGiven && !ParseVersion(text, version)) return Setting::kMalformed;
    const Setting build = ReadText(key, "CurrentBuildNumber", text);
    if (build != Setting::kGiven) return build == Setting::kMalformed ? build : setting;
    std::string_view left = text;
    return TakeNumber(left, version.build) && left.empty() ? Setting::kGiven : Setting::kMalformed;
}

bool FindVersion(Version& version) {
    const char* setting = std::getenv("ORIEL_WINDOWS_VERSION");
    if (setting != nullptr) return ParseVersion(setting, version);
    HKEY key = nullptr;
    const LSTATUS status =
        RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0, KEY_QUERY_VALUE, &key);
    if (status != ERROR_SUCCESS) return status == ERROR_FILE_NOT_FOUND;
    const bool wellFormed = ReadVersion(key, version) != Setting::kMalformed;
    RegCloseKey(key);
    return wellFormed;
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI GetVersionExA(LPOSVERSIONINFOA versionInformation) {
    if (versionInformation == nullptr || versionInformation->dwOSVersionInfoSize != sizeof(OSVERSIONINFOA))
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    Version version;
    if (!FindVersion(version)) return Fail(ERROR_INVALID_DATA);
    *versionInformation = {};
    versionInformation->dwOSVersionInfoSize = sizeof(OSVERSIONINFOA);
    versionInformation->dwMajorVersion = version.major;
    versionInformation->dwMinorVersion = version.minor;
    versionInformation->dwBuildNumber = version.build;
    versionInformation->dwPlatformId = version.platform;
    return TRUE;
}

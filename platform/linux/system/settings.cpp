// Settings of the emulated Windows: its version, its ANSI code page, the section "Windows" of the user's profile.
// State: the environment and the registry, read at each call.
#include "base/call.h"
#include "text/code_page.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sysinfoapi.h>
#include <winnls.h>
#include <winreg.h>

namespace oriel {
namespace {

struct Version {
    DWORD platform = VER_PLATFORM_WIN32_NT;
    DWORD major = 5;
    DWORD minor = 1;
    DWORD build = 2600;
};

// The build number of each release, for settings without one.
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

// Removes a number from the front of the text.
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

// Format: [9x:]major.minor[.build]
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

enum class Setting { Absent, Given, Malformed };

// Reads a text of at most 31 characters and adds a NUL.
Setting ReadText(HKEY key, const char* name, char (&text)[32]) {
    DWORD size = sizeof text - 1;
    DWORD type = REG_NONE;
    const LSTATUS status = RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text), &size);
    if (status == ERROR_FILE_NOT_FOUND) return Setting::Absent;
    if (status != ERROR_SUCCESS || type != REG_SZ) return Setting::Malformed;
    text[size] = '\0';
    return Setting::Given;
}

Setting ReadVersion(HKEY key, Version& version) {
    char text[32];
    const Setting setting = ReadText(key, "CurrentVersion", text);
    if (setting == Setting::Malformed) return setting;
    if (setting == Setting::Given && !ParseVersion(text, version)) return Setting::Malformed;
    const Setting build = ReadText(key, "CurrentBuildNumber", text);
    if (build != Setting::Given) return build == Setting::Malformed ? build : setting;
    std::string_view left = text;
    return TakeNumber(left, version.build) && left.empty() ? Setting::Given : Setting::Malformed;
}

bool FindVersion(Version& version) {
    // A malformed setting is an error, not the default: a caller must not act on a wrong version.
    const char* setting = std::getenv("ORIEL_WINDOWS_VERSION");
    if (setting != nullptr) return ParseVersion(setting, version);
    HKEY key = nullptr;
    const LSTATUS status =
        RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0, KEY_QUERY_VALUE, &key);
    if (status != ERROR_SUCCESS) return status == ERROR_FILE_NOT_FOUND;
    const bool wellFormed = ReadVersion(key, version) != Setting::Malformed;
    RegCloseKey(key);
    return wellFormed;
}

constexpr const char* kWindowsSection = "Software\\Microsoft\\Windows NT\\CurrentVersion\\Windows";

bool IsWindowsSection(LPCSTR section) {
    return section != nullptr && lstrcmpiA(section, "Windows") == 0;
}

// Reads a text up to its NUL. False when there is none.
bool ReadText(LPCSTR name, std::string& text) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, kWindowsSection, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS) return false;
    DWORD type = REG_NONE;
    DWORD size = 0;
    LSTATUS status = RegQueryValueExA(key, name, nullptr, &type, nullptr, &size);
    if (status == ERROR_SUCCESS && type == REG_SZ) {
        // A value that grew since it was measured counts as missing, not as cut off.
        text.resize(size);
        status = RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size);
    }
    RegCloseKey(key);
    if (status != ERROR_SUCCESS || type != REG_SZ) return false;
    text.resize(std::min<size_t>(size, text.size()));
    text.resize(std::strlen(text.c_str()));
    return true;
}

std::string_view WithoutQuotes(std::string_view text) {
    if (text.size() < 2 || text.front() != text.back()) return text;
    if (text.front() != '"' && text.front() != '\'') return text;
    return text.substr(1, text.size() - 2);
}

std::string_view WithoutTrailingBlanks(std::string_view text) {
    while (text.ends_with(' '))
        text.remove_suffix(1);
    return text;
}

// 0 when the text is not a decimal number.
UINT NumberOf(const char* text) {
    UINT number = 0;
    const char* end = text + std::strlen(text);
    const auto [last, error] = std::from_chars(text, end, number);
    return error == std::errc() && last == end ? number : 0;
}

UINT NumberInRegistry() {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Control\\Nls\\CodePage", 0, KEY_QUERY_VALUE,
                      &key) != ERROR_SUCCESS)
        return 0;
    char text[16] = {};
    DWORD size = sizeof text - 1;
    DWORD type = REG_NONE;
    const LSTATUS status = RegQueryValueExA(key, "ACP", nullptr, &type, reinterpret_cast<BYTE*>(text), &size);
    RegCloseKey(key);
    return status == ERROR_SUCCESS && type == REG_SZ ? NumberOf(text) : 0;
}

} // namespace

UINT AnsiCodePageSetting() {
    const char* setting = std::getenv("ORIEL_ANSI_CODE_PAGE");
    const UINT number = setting != nullptr ? NumberOf(setting) : 0;
    return number != 0 ? number : NumberInRegistry();
}

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

DWORD WINAPI GetProfileStringA(LPCSTR section, LPCSTR keyName, LPCSTR defaultValue, LPSTR returned, DWORD size) {
    // Lists of sections and keys (null names) are not supported.
    if (section == nullptr || keyName == nullptr || *keyName == '\0' || returned == nullptr || size == 0)
        return Fail<DWORD>(ERROR_INVALID_PARAMETER);
    return Call<DWORD>(0, [&]() -> DWORD {
        std::string stored;
        std::string_view text = WithoutTrailingBlanks(defaultValue != nullptr ? defaultValue : "");
        if (IsWindowsSection(section) && ReadText(keyName, stored)) text = WithoutQuotes(stored);
        const size_t length = std::min<size_t>(text.size(), size - 1);
        std::memcpy(returned, text.data(), length);
        returned[length] = '\0';
        return static_cast<DWORD>(length);
    });
}

BOOL WINAPI WriteProfileStringA(LPCSTR section, LPCSTR keyName, LPCSTR value) {
    if (!IsWindowsSection(section) || keyName == nullptr || *keyName == '\0') return Fail(ERROR_INVALID_PARAMETER);
    HKEY key = nullptr;
    LSTATUS status = RegCreateKeyExA(HKEY_CURRENT_USER, kWindowsSection, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                     KEY_SET_VALUE, nullptr, &key, nullptr);
    if (status == ERROR_SUCCESS) {
        if (value != nullptr) {
            const auto size = static_cast<DWORD>(std::strlen(value) + 1);
            status = RegSetValueExA(key, keyName, 0, REG_SZ, reinterpret_cast<const BYTE*>(value), size);
        } else {
            status = RegDeleteValueA(key, keyName);
            // The entry is absent, as requested.
            if (status == ERROR_FILE_NOT_FOUND) status = ERROR_SUCCESS;
        }
        RegCloseKey(key);
    }
    return status == ERROR_SUCCESS ? TRUE : Fail(static_cast<DWORD>(status));
}

// The user's profile, of which there is the section "Windows". Kept in the registry, as Windows NT keeps it.
#include "base/call.h"

#include <sysinfoapi.h>
#include <winnls.h>
#include <winreg.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace oriel {
namespace {

constexpr const char* kWindowsSection = "Software\\Microsoft\\Windows NT\\CurrentVersion\\Windows";

bool IsWindowsSection(LPCSTR section) {
    return section != nullptr && lstrcmpiA(section, "Windows") == 0;
}

// A text value, up to its NUL. False when there is none.
bool ReadText(LPCSTR name, std::string& text) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, kWindowsSection, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS) return false;
    DWORD type = REG_NONE;
    DWORD size = 0;
    LSTATUS status = RegQueryValueExA(key, name, nullptr, &type, nullptr, &size);
    if (status == ERROR_SUCCESS && type == REG_SZ) {
        // One that grew since it was measured counts as missing rather than as half of it.
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

} // namespace
} // namespace oriel

using namespace oriel;

DWORD WINAPI GetProfileStringA(LPCSTR section, LPCSTR keyName, LPCSTR defaultValue, LPSTR returned, DWORD size) {
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
            if (status == ERROR_FILE_NOT_FOUND) status = ERROR_SUCCESS;
        }
        RegCloseKey(key);
    }
    return status == ERROR_SUCCESS ? TRUE : Fail(static_cast<DWORD>(status));
}

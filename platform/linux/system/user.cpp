// The user and the window station of the process, and its environment.
#include "security/accounts.h"
#include "system/fail.h"

#include <sysinfoapi.h>
#include <winstation.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

using oriel::Fail;

constexpr const char* kDefaultStation = "WinSta0";
constexpr const char* kNoStation = "none";
// A value that no handle table gives out, and that fits 32 bits.
const HWINSTA kStation = ULongToHandle(0xFFFFFFE0U);

const char* StationName() {
    const char* name = std::getenv("ORIEL_WINDOW_STATION");
    return name != nullptr && *name != '\0' ? name : kDefaultStation;
}

bool IsVariableName(LPCSTR name) {
    return name != nullptr && *name != '\0' && std::strchr(name, '=') == nullptr;
}

} // namespace

BOOL WINAPI GetUserNameA(LPSTR buffer, LPDWORD size) {
    if (size == nullptr || (buffer == nullptr && *size != 0)) return Fail(ERROR_INVALID_PARAMETER);
    try {
        const char* set = std::getenv("ORIEL_LOGON_NAME");
        const std::string name = set != nullptr && *set != '\0' ? std::string(set) : oriel::NameOfUser(geteuid());
        if (name.empty()) return Fail(ERROR_NONE_MAPPED);
        const DWORD room = *size;
        *size = static_cast<DWORD>(name.size() + 1);
        if (room <= name.size()) return Fail(ERROR_INSUFFICIENT_BUFFER);
        std::memcpy(buffer, name.c_str(), name.size() + 1);
        return TRUE;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
}

HWINSTA WINAPI GetProcessWindowStation(void) {
    return std::strcmp(StationName(), kNoStation) != 0 ? kStation : Fail<HWINSTA>(ERROR_ACCESS_DENIED);
}

BOOL WINAPI GetUserObjectInformationA(HANDLE object, int index, PVOID information, DWORD length, LPDWORD lengthNeeded) {
    if (object != kStation) return Fail(ERROR_INVALID_HANDLE);
    if (index != UOI_NAME || (information == nullptr && length != 0)) return Fail(ERROR_INVALID_PARAMETER);
    const char* name = StationName();
    const size_t needed = std::strlen(name) + 1;
    if (lengthNeeded != nullptr) *lengthNeeded = static_cast<DWORD>(needed);
    if (length < needed) return Fail(ERROR_INSUFFICIENT_BUFFER);
    std::memcpy(information, name, needed);
    return TRUE;
}

DWORD WINAPI GetEnvironmentVariableA(LPCSTR name, LPSTR buffer, DWORD size) {
    const char* value = IsVariableName(name) ? std::getenv(name) : nullptr;
    if (value == nullptr) return Fail<DWORD>(ERROR_ENVVAR_NOT_FOUND);
    const size_t length = std::strlen(value);
    if (size <= length || buffer == nullptr) return static_cast<DWORD>(length + 1);
    std::memcpy(buffer, value, length + 1);
    if (length == 0) SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(length);
}

BOOL WINAPI SetEnvironmentVariableA(LPCSTR name, LPCSTR value) {
    if (!IsVariableName(name)) return Fail(ERROR_INVALID_PARAMETER);
    const int result = value == nullptr ? unsetenv(name) : setenv(name, value, 1);
    return result == 0 ? TRUE : Fail(ERROR_NOT_ENOUGH_MEMORY);
}

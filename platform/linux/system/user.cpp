// The user of the process, and its environment.
#include "base/call.h"
#include "security/accounts.h"

#include <sysinfoapi.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace oriel {
namespace {

bool IsVariableName(LPCSTR name) {
    return name != nullptr && *name != '\0' && std::strchr(name, '=') == nullptr;
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI GetUserNameA(LPSTR buffer, LPDWORD size) {
    if (size == nullptr || (buffer == nullptr && *size != 0)) return Fail(ERROR_INVALID_PARAMETER);
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        const char* set = std::getenv("ORIEL_LOGON_NAME");
        const std::string name = set != nullptr && *set != '\0' ? std::string(set) : NameOfUser(geteuid());
        if (name.empty()) return Fail(ERROR_NONE_MAPPED);
        const DWORD room = *size;
        *size = static_cast<DWORD>(name.size() + 1);
        if (room <= name.size()) return Fail(ERROR_INSUFFICIENT_BUFFER);
        std::memcpy(buffer, name.c_str(), name.size() + 1);
        return TRUE;
    });
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

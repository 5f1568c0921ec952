// The last error of each thread, and the Win32 error for each value of errno. State: the last error, one thread-local
// word.
#include "base/call.h"

#include <cerrno>
#include <errhandlingapi.h>

namespace {

// Initial-exec: read and written without a call, so it also works in a thread that is being terminated.
constinit thread_local DWORD t_lastError __attribute__((tls_model("initial-exec"))) = ERROR_SUCCESS;

} // namespace

DWORD WINAPI GetLastError() {
    return t_lastError;
}

void WINAPI SetLastError(DWORD code) {
    t_lastError = code;
}

namespace oriel {

DWORD SystemError(int error) {
    switch (error) {
    case ENOENT:
        return ERROR_FILE_NOT_FOUND;
    // A directory on the way is missing or wrong, not the file itself.
    case ENOTDIR:
    case ELOOP:
        return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
        return ERROR_ACCESS_DENIED;
    case ENAMETOOLONG:
        return ERROR_FILENAME_EXCED_RANGE;
    case ENOEXEC:
        return ERROR_BAD_EXE_FORMAT;
    case EMFILE:
    case ENFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case ETIMEDOUT:
        return ERROR_TIMEOUT;
    case ENOSYS:
        return ERROR_NOT_SUPPORTED;
    default:
        return ERROR_NO_SYSTEM_RESOURCES;
    }
}

} // namespace oriel

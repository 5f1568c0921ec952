// ReadProcessMemory and WriteProcessMemory over the guard.
#include "base/call.h"
#include "memory/guard.h"

#include <errhandlingapi.h>
#include <memoryapi.h>
#include <processthreadsapi.h>

namespace oriel {
namespace {

BOOL Report(bool whole, size_t copied, SIZE_T* count) {
    if (count != nullptr) *count = copied;
    if (!whole) SetLastError(copied > 0 ? ERROR_PARTIAL_COPY : ERROR_NOACCESS);
    return whole ? TRUE : FALSE;
}

bool IsOwnProcess(HANDLE process) {
    if (process == GetCurrentProcess()) return true;
    return Fail(process == nullptr ? ERROR_INVALID_HANDLE : ERROR_NOT_SUPPORTED, false);
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI ReadProcessMemory(HANDLE process, LPCVOID baseAddress, LPVOID buffer, SIZE_T size, SIZE_T* bytesRead) {
    if (!IsOwnProcess(process)) return FALSE;
    size_t copied = 0;
    const bool whole = GuardedRead(buffer, baseAddress, size, &copied);
    return Report(whole, copied, bytesRead);
}

BOOL WINAPI WriteProcessMemory(HANDLE process, LPVOID baseAddress, LPCVOID buffer, SIZE_T size, SIZE_T* bytesWritten) {
    if (!IsOwnProcess(process)) return FALSE;
    size_t copied = 0;
    const bool whole = GuardedWrite(baseAddress, buffer, size, &copied);
    return Report(whole, copied, bytesWritten);
}

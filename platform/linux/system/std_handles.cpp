// Standard streams: handles that are the numbers by which they are asked for. No state.
#include "base/call.h"
#include <errhandlingapi.h>
#include <oriel_streams.h>
#include <stdhandleapi.h>
#include <winerror.h>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace oriel {
namespace {

// STDIN_FILENO and its two neighbours count up, STD_INPUT_HANDLE and its count down.
int DescriptorOf(DWORD stdHandle) {
    const DWORD descriptor = STD_INPUT_HANDLE - stdHandle;
    return descriptor <= STDERR_FILENO ? static_cast<int>(descriptor) : -1;
}

} // namespace
} // namespace oriel

using namespace oriel;

HANDLE WINAPI GetStdHandle(DWORD stdHandle) {
    const int descriptor = DescriptorOf(stdHandle);
    if (descriptor < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if (fcntl(descriptor, F_GETFD) < 0) return nullptr;
    return ULongToHandle(stdHandle);
}

BOOL WINAPI GetConsoleMode(HANDLE consoleHandle, LPDWORD mode) {
    const int descriptor = DescriptorOf(HandleToULong(consoleHandle));
    if (descriptor < 0 || consoleHandle != ULongToHandle(HandleToULong(consoleHandle)) || !isatty(descriptor))
        return Fail(ERROR_INVALID_HANDLE);
    *mode = 0;
    return TRUE;
}

void WINAPI OrielFailOnClosedPipes() {
    std::signal(SIGPIPE, SIG_IGN);
}

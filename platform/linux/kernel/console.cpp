// The console: SIGINT and SIGTERM as console events, and the standard streams, whose handles are the numbers that name
// them (STD_INPUT_HANDLE and so on).
//
// The signal handler only writes a byte to a pipe. A thread reads it and runs the handlers, so a handler may call
// anything.
//
// State: the handlers, the pipe and the thread, made with the first handler and kept; the earlier signal dispositions,
// restored when the last handler is removed.
#include "base/call.h"
#include "base/lock.h"
#include "base/steps.h"
#include "kernel/thread.h"

#include <cerrno>
#include <consoleapi.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <errhandlingapi.h>
#include <fcntl.h>
#include <oriel_streams.h>
#include <pthread.h>
#include <stdhandleapi.h>
#include <sys/stat.h>
#include <unistd.h>
#include <winerror.h>

namespace oriel {
namespace {

constexpr uint32_t kMostHandlers = 16;

constinit Lock g_consoleLock;
PHANDLER_ROUTINE g_handlers[kMostHandlers] ORIEL_LOCK_CHECK(guarded_by(g_consoleLock));
uint32_t g_handlerCount ORIEL_LOCK_CHECK(guarded_by(g_consoleLock)) = 0;
struct sigaction g_interruptBefore ORIEL_LOCK_CHECK(guarded_by(g_consoleLock));
struct sigaction g_terminateBefore ORIEL_LOCK_CHECK(guarded_by(g_consoleLock));
int g_reading ORIEL_LOCK_CHECK(guarded_by(g_consoleLock)) = -1;
std::atomic<int> g_writing{-1};

void OnSignal(int number) {
    const int error = errno;
    const auto byte = static_cast<unsigned char>(number);
    // A full pipe loses the signal, but then thousands are pending.
    [[maybe_unused]] const ssize_t written = write(g_writing.load(), &byte, 1);
    errno = error;
}

void HandOutSignals() ORIEL_LOCK_CHECK(requires_capability(g_consoleLock)) {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    sigaction(SIGINT, &action, &g_interruptBefore);
    sigaction(SIGTERM, &action, &g_terminateBefore);
}

void TakeSignalsBack() ORIEL_LOCK_CHECK(requires_capability(g_consoleLock)) {
    sigaction(SIGINT, &g_interruptBefore, nullptr);
    sigaction(SIGTERM, &g_terminateBefore, nullptr);
}

// Does what the signal did before the first handler was added; by default that ends the process.
void EndBySignal(int number) {
    {
        LockHold hold(g_consoleLock);
        TakeSignalsBack();
        g_handlerCount = 0;
    }
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, number);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    kill(getpid(), number);
}

void RunHandlers(int number) {
    PHANDLER_ROUTINE handlers[kMostHandlers];
    uint32_t count = 0;
    {
        LockHold hold(g_consoleLock);
        for (; count < g_handlerCount; ++count)
            handlers[count] = g_handlers[count];
    }
    if (count == 0) return; // removed in the meantime
    const DWORD event = number == SIGINT ? CTRL_C_EVENT : CTRL_BREAK_EVENT;
    // The handler that was added last runs first. The first one that returns TRUE is the last to run.
    while (count > 0)
        if (handlers[--count](event)) return;
    EndBySignal(number);
}

void* ReadSignals(void*) {
    int reading = -1;
    {
        LockHold hold(g_consoleLock); // waits until the pipe is ready
        reading = g_reading;
    }
    for (;;) {
        unsigned char number = 0;
        const ssize_t count = read(reading, &number, 1);
        if (count == 1) RunHandlers(number);
        if (count == 0 || (count < 0 && errno != EINTR)) return nullptr;
    }
}

// ERROR_SUCCESS, or why no events can come.
DWORD StartReading() ORIEL_LOCK_CHECK(requires_capability(g_consoleLock)) {
    if (g_reading >= 0) return ERROR_SUCCESS;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return SystemError(errno);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    WatchForFork();
    // Handlers belong to the program and get a stack of the usual size.
    const int error = StartThread(0, ReadSignals, nullptr);
    if (error != 0) {
        close(ends[0]);
        close(ends[1]);
        return SystemError(error);
    }
    g_reading = ends[0];
    g_writing.store(ends[1]);
    return ERROR_SUCCESS;
}

// The handlers belong to the parent. The child gets back the earlier dispositions.
void ForgetConsole() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_consoleLock.ForgetOwner();
    if (g_handlerCount != 0) TakeSignalsBack();
    g_handlerCount = 0;
    if (g_reading < 0) return;
    close(g_reading);
    close(g_writing.load());
    g_reading = -1;
    g_writing.store(-1);
}

DWORD AddHandler(PHANDLER_ROUTINE handler) {
    LockHold hold(g_consoleLock);
    if (g_handlerCount == kMostHandlers) return ERROR_NO_SYSTEM_RESOURCES;
    const DWORD error = StartReading();
    if (error != ERROR_SUCCESS) return error;
    g_handlers[g_handlerCount++] = handler;
    if (g_handlerCount == 1) HandOutSignals();
    return ERROR_SUCCESS;
}

DWORD RemoveHandler(PHANDLER_ROUTINE handler) {
    LockHold hold(g_consoleLock);
    uint32_t last = g_handlerCount;
    while (last > 0 && g_handlers[last - 1] != handler)
        --last;
    if (last == 0) return ERROR_INVALID_PARAMETER;
    for (; last < g_handlerCount; ++last)
        g_handlers[last - 1] = g_handlers[last];
    if (--g_handlerCount == 0) TakeSignalsBack();
    return ERROR_SUCCESS;
}

} // namespace

const ForkSteps kConsoleFork{TakeForFork<g_consoleLock>, ReleaseAfterFork<g_consoleLock>, ForgetConsole};

namespace {

// Both are consecutive: STDIN_FILENO and the next two count up, STD_INPUT_HANDLE and the next two count down.
int DescriptorOf(DWORD stdHandle) {
    const DWORD descriptor = STD_INPUT_HANDLE - stdHandle;
    return descriptor <= STDERR_FILENO ? static_cast<int>(descriptor) : -1;
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add) {
    DWORD error = ERROR_NOT_SUPPORTED;
    if (handler != nullptr) error = add ? AddHandler(handler) : RemoveHandler(handler);
    if (error == ERROR_SUCCESS) return TRUE;
    return Fail(error);
}

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

BOOL WINAPI OrielErrorsGoToJournal() {
    const char* stream = getenv("JOURNAL_STREAM"); // "DEVICE:INODE"
    unsigned long long device = 0;
    unsigned long long inode = 0;
    struct stat status {};
    return stream && sscanf(stream, "%llu:%llu", &device, &inode) == 2 && fstat(STDERR_FILENO, &status) == 0 &&
           status.st_dev == device && status.st_ino == inode;
}

// TerminateThread: stops a thread where it is, for good.
//
// The request is a value of the thread's state word, on which its waits in the layer sleep too, and a real-time signal
// whose handler never returns. Cancellation of the C library is not an option: it runs destructors in the middle of
// anything. A thread inside the layer (TerminationHold) stops when it leaves.
//
// State: the signal, chosen and given its handler by the first termination.
#include "base/call.h"
#include "base/lock.h"
#include "base/steps.h"
#include "base/timings.h"
#include "kernel/thread.h"

#include <cerrno>
#include <csignal>
#include <errhandlingapi.h>
#include <processthreadsapi.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oriel {
namespace {

constinit Lock g_signalLock;
int g_signal ORIEL_LOCK_CHECK(guarded_by(g_signalLock)) = 0;

void StopSignal(int) {
    const int error = errno;
    if (t_terminationHolds == 0 && TerminationAsked()) StopHereIfAsked();
    errno = error;
}

// 0 when all signals are in use.
int SignalForStopping() {
    LockHold hold(g_signalLock);
    struct sigaction action {};
    if (g_signal != 0 && sigaction(g_signal, nullptr, &action) == 0 && action.sa_handler == StopSignal) return g_signal;
    // From the end of the range, the part that programs use least. A handled or ignored signal is in use.
    for (int number = SIGRTMAX; number >= SIGRTMIN; --number) {
        if (sigaction(number, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) continue;
        action = {};
        action.sa_handler = StopSignal;
        action.sa_flags = SA_RESTART;
        sigfillset(&action.sa_mask);
        if (sigaction(number, &action, nullptr) != 0) continue;
        g_signal = number;
        return number;
    }
    return 0;
}

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI TerminateThread(HANDLE handle, DWORD exitCode) {
    HandleUse<ThreadObject> thread(handle, kThreadType, 0);
    if (!thread) return FALSE;
    if (thread.Get() == CurrentThread()) return Fail(ERROR_NOT_SUPPORTED);
    const int64_t deadline = MonotonicNs() + g_timings.threadStop * kNsPerMs;
    uint32_t state = kRunning;
    const bool first = thread->state.compare_exchange_strong(state, kTerminationAsked);
    if (first) {
        WakeAll(thread->state, false);
        Rouse(*thread.Get(), deadline);
        const int number = SignalForStopping();
        const DWORD id = thread->threadId.load();
        if (number != 0 && id != 0) syscall(SYS_tgkill, getpid(), id, number);
    }
    // Until the thread has stopped or ended. If another caller was first, until that caller is done.
    while (thread->ended.load() == 0) {
        state = thread->state.load();
        if (first && state == kStopped) {
            AbandonMutexes(*thread.Get());
            RunStoppedThreadSteps(thread->threadId.load());
            thread->exitCode.store(exitCode);
            AnnounceEnd(*thread.Get());
            DropReference(thread.Get()); // of the thread itself
            return TRUE;
        }
        const SleepPoint stopping[2] = {{&thread->state, state, false}, {&thread->ended, 0, false}};
        if (SleepOn(stopping, 2, deadline) != Awake::TimedOut) continue;
        state = kTerminationAsked;
        // Withdraws the request, unless the thread has stopped meanwhile.
        if (first && !thread->state.compare_exchange_strong(state, kRunning)) continue;
        return Fail(ERROR_TIMEOUT);
    }
    return TRUE;
}

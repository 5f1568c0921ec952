// TerminateThread: stops a thread where it stands, for good.
//
// The thread is asked through its state word, which its waits in the layer sleep on too, and by a real-time signal
// whose handler never returns. Cancellation of the C library is no choice: it runs destructors in the middle of
// anything. Where the thread is inside the layer (TerminationHold) it stops when it leaves.
//
// State: the signal, chosen and given its handler at the first termination; none before.
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

// 0 when no signal is free.
int SignalForStopping() {
    LockHold hold(g_signalLock);
    struct sigaction action {};
    if (g_signal != 0 && sigaction(g_signal, nullptr, &action) == 0 && action.sa_handler == StopSignal) return g_signal;
    // One that the program does not use, from the end of the range that programs use least.
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
        const int number = SignalForStopping();
        const DWORD id = thread->threadId.load();
        if (number != 0 && id != 0) syscall(SYS_tgkill, getpid(), id, number);
    }
    // For the thread to stand still or, when another caller was first, for that caller to have dealt with it.
    while (thread->ended.load() == 0) {
        state = thread->state.load();
        if (first && state == kStopped) {
            AbandonMutexes(*thread.Get());
            RunStoppedThreadSteps(thread->threadId.load());
            thread->exitCode.store(exitCode);
            AnnounceEnd(*thread.Get());
            DropReference(thread.Get()); // the thread's own
            return TRUE;
        }
        const SleepPoint stopping[2] = {{&thread->state, state, false}, {&thread->ended, 0, false}};
        if (SleepOn(stopping, 2, deadline) != Awake::TimedOut) continue;
        state = kTerminationAsked;
        if (first && !thread->state.compare_exchange_strong(state, kRunning)) continue;
        return Fail(ERROR_TIMEOUT);
    }
    return TRUE;
}

// The thread that waits for processes: one for all, started with the first process that is started or waited for. It
// turns the end of a process into the change of a word that waits can sleep on, and leaves no zombies.
//
// State: the list of watched processes and the epoll descriptor, under one lock.
#include "base/list.h"
#include "base/lock.h"
#include "base/steps.h"
#include "kernel/process.h"
#include "kernel/thread.h"

#include <cerrno>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oriel {
namespace {

constinit Lock g_reaperLock;
List<ProcessObject> g_watched ORIEL_LOCK_CHECK(guarded_by(g_reaperLock));
int g_epoll ORIEL_LOCK_CHECK(guarded_by(g_reaperLock)) = -1;
bool g_running ORIEL_LOCK_CHECK(guarded_by(g_reaperLock)) = false;

// Reaps a child. Its exit code stays unknown if the host program has waited for all its children and was faster.
void Reap(ProcessObject& process) {
    siginfo_t info{};
    int result = 0;
    do
        result = waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(process.descriptor), &info, WEXITED);
    while (result != 0 && errno == EINTR);
    if (result != 0) return;
    // A child that TerminateProcess killed reports the code that was given there; other signals count as in a shell.
    const DWORD given = process.exitCodeGiven.load();
    if (info.si_code == CLD_EXITED)
        process.exitCode.store(static_cast<DWORD>(info.si_status));
    else
        process.exitCode.store(
            info.si_status == SIGKILL && given != STATUS_PENDING ? given : 128 + static_cast<DWORD>(info.si_status));
    process.exitCodeKnown.store(true);
}

void Unwatch(ProcessObject& process) ORIEL_LOCK_CHECK(requires_capability(g_reaperLock)) {
    g_watched.Remove(process);
    process.watched = false;
    epoll_ctl(g_epoll, EPOLL_CTL_DEL, process.descriptor, nullptr);
}

// True the first time. The watcher's reference to a child then belongs to the caller.
bool NoteEnd(ProcessObject& process) ORIEL_LOCK_CHECK(requires_capability(g_reaperLock)) {
    if (process.ended.load() != 0) return false;
    if (process.child) Reap(process);
    if (process.watched) Unwatch(process);
    process.ended.store(1, std::memory_order_release);
    WakeAll(process.ended, false);
    return true;
}

bool IsReadable(int descriptor) {
    pollfd ready{descriptor, POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
}

// Records all ends up to the first child, whose reference then belongs to the caller; null for none. The record of
// another process may be deleted as soon as the lock is released.
ProcessObject* NextEndedChild() {
    LockHold hold(g_reaperLock);
    for (ProcessObject *process = g_watched.First(), *next = nullptr; process != nullptr; process = next) {
        next = process->next;
        if (IsReadable(process->descriptor) && NoteEnd(*process) && process->child) return process;
    }
    return nullptr;
}

void* WatchProcesses(void*) {
    int epoll = -1;
    {
        LockHold hold(g_reaperLock);
        epoll = g_epoll;
    }
    for (;;) {
        epoll_event event{};
        if (epoll_wait(epoll, &event, 1, -1) < 0 && errno != EINTR) return nullptr;
        // Dropped without the lock, since the drop takes it.
        while (ProcessObject* child = NextEndedChild())
            DropReference(child);
    }
}

bool StartWatcher() ORIEL_LOCK_CHECK(requires_capability(g_reaperLock)) {
    if (g_running) return true;
    if (g_epoll < 0) g_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (g_epoll < 0) return false;
    WatchForFork();
    g_running = StartThread(kOwnStackSize, WatchProcesses, nullptr) == 0;
    return g_running;
}

// The watcher and the children belong to the parent.
void ForgetProcesses() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_reaperLock.ForgetOwner();
    if (g_epoll >= 0) close(g_epoll);
    g_epoll = -1;
    g_running = false;
    g_watched.Forget();
}

} // namespace

const ForkSteps kReaperFork{TakeForFork<g_reaperLock>, ReleaseAfterFork<g_reaperLock>, ForgetProcesses};

bool WatchProcess(ProcessObject& process) {
    LockHold hold(g_reaperLock);
    if (process.watched || process.ended.load() != 0) return true;
    if (!StartWatcher()) return false;
    process.watched = true;
    g_watched.Add(process);
    if (process.child) process.references.fetch_add(1);
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll_ctl(g_epoll, EPOLL_CTL_ADD, process.descriptor, &event) == 0) return true;
    Unwatch(process);
    if (process.child) process.references.fetch_sub(1); // not the last: the caller has one
    return false;
}

void StopWatching(ProcessObject& process) {
    LockHold hold(g_reaperLock);
    if (process.watched) Unwatch(process);
}

bool HasEnded(ProcessObject& process) {
    if (process.ended.load(std::memory_order_acquire) != 0) return true;
    if (!IsReadable(process.descriptor)) return false;
    bool drop = false;
    {
        LockHold hold(g_reaperLock);
        const bool watched = process.watched;
        drop = NoteEnd(process) && watched && process.child;
    }
    if (drop) process.references.fetch_sub(1); // the watcher's, not the last one: the caller has one
    return true;
}

} // namespace oriel

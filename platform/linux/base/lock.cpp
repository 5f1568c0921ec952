// Where a thread stops for good, and the slow path of Lock. State: the thread-local variables of lock.h.
#include "base/lock.h"

#include <csignal>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oriel {

constinit thread_local uint32_t t_terminationHolds __attribute__((tls_model("initial-exec"))) = 0;
constinit thread_local Word* t_terminationWord __attribute__((tls_model("initial-exec"))) = nullptr;

namespace {

// By direct system calls: ppoll() of the C library is a cancellation point.
[[noreturn]] void StandStill() {
    for (;;)
        syscall(SYS_ppoll, nullptr, 0, nullptr, nullptr, 0);
}

} // namespace

void StopHereIfAsked() {
    // A stopped thread must not run signal handlers of the program.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    uint32_t asked = kTerminationAsked;
    if (t_terminationWord->compare_exchange_strong(asked, kStopped)) {
        WakeAll(*t_terminationWord, false);
        StandStill();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr); // the terminating thread has given up
}

bool Lock::AcquireContended(int64_t deadline) {
    // A thread that had to wait takes the lock as contended: others may still sleep.
    while (m_word.exchange(kContended, std::memory_order_acquire) != 0) {
        const SleepPoint held{&m_word, kContended, false};
        if (SleepOn(&held, 1, deadline) == Awake::TimedOut) return false;
    }
    return true;
}

} // namespace oriel

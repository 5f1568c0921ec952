// The locks of the layer, and protection against TerminateThread.
//
// A thread that TerminateThread stops leaves everything as it is, for good: what it locked stays locked. Inside the
// layer a thread is therefore stopped only where it holds nothing of the layer. LockHold and HandleUse
// (kernel/handles.h) take care of that; other code that changes state shared by threads uses a TerminationHold. A
// TerminationHold must not enclose a wait for another process, unless that wait polls TerminationAsked() and returns.
//
// State: per thread, the count of holds and the address of its state word; the word itself is in the record of the
// thread (kernel/thread.h).
#pragma once

#include "base/futex.h"

#include <synchapi.h>

namespace oriel {

// The calling thread: how many holds it has, and its state word; null until the thread has a record. Initial-exec: a
// signal handler reads them.
extern constinit thread_local uint32_t t_terminationHolds __attribute__((tls_model("initial-exec")));
extern constinit thread_local Word* t_terminationWord __attribute__((tls_model("initial-exec")));

// Values of the state word.
constexpr uint32_t kRunning = 0;
constexpr uint32_t kTerminationAsked = 1; // another thread wants to stop this one
constexpr uint32_t kStopped = 2;          // it has stopped for good

// True when another thread wants to stop this one: a wait should end and return.
inline bool TerminationAsked() {
    return t_terminationWord != nullptr && t_terminationWord->load(std::memory_order_relaxed) == kTerminationAsked;
}

// Stops the calling thread for good if another thread wants that; else returns.
void StopHereIfAsked();

// While one exists, TerminateThread does not stop the calling thread; at the end of the outermost one it does. Holds
// nest. The fences keep the compiler from moving code across the count, which a signal handler reads.
struct TerminationHold {
    TerminationHold() {
        ++t_terminationHolds;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    ~TerminationHold() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (--t_terminationHolds == 0 && TerminationAsked()) StopHereIfAsked();
    }
    TerminationHold(const TerminationHold&) = delete;
    TerminationHold& operator=(const TerminationHold&) = delete;
};

// A lock within the process: one futex word (0 free, 1 locked, kContended locked with sleepers). Not recursive, and
// never held across a wait for another process. Constant-initialised and without a destructor, so it works before and
// after main().
class ORIEL_LOCK_CHECK(capability("lock")) Lock {
public:
    constexpr Lock() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void Acquire() ORIEL_LOCK_CHECK(acquire_capability()) { AcquireUntil(kNever); }
    // False when the deadline passed: the lock is not held.
    bool AcquireUntil(int64_t deadline) ORIEL_LOCK_CHECK(try_acquire_capability(true)) {
        uint32_t free = 0;
        return m_word.compare_exchange_strong(free, 1, std::memory_order_acquire) || AcquireContended(deadline);
    }
    void Release() ORIEL_LOCK_CHECK(release_capability()) {
        if (m_word.exchange(0, std::memory_order_release) == kContended) WakeOne(m_word);
    }
    // In a fork child: whichever thread held the lock is gone.
    void ForgetOwner() { m_word.store(0); }

private:
    static constexpr uint32_t kContended = 2;
    bool AcquireContended(int64_t deadline);

    Word m_word{0};
};

// Holds a lock for the life of the guard. The thread cannot be stopped in that time.
class ORIEL_LOCK_CHECK(scoped_lockable) LockHold {
public:
    explicit LockHold(Lock& lock) ORIEL_LOCK_CHECK(acquire_capability(lock)) : m_lock(lock) { m_lock.Acquire(); }
    ~LockHold() ORIEL_LOCK_CHECK(release_capability()) { m_lock.Release(); }
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;

private:
    TerminationHold m_hold; // outlives the lock
    Lock& m_lock;
};

// For fork steps (steps.h), which take a lock in one function and release it in another.
template <Lock& lock>
void TakeForFork() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    lock.Acquire();
}
template <Lock& lock>
void ReleaseAfterFork() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    lock.Release();
}

} // namespace oriel

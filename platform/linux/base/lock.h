// The layer's own locks, and what TerminateThread must not interrupt.
//
// A thread that TerminateThread stops in the middle of something leaves it as it is, for good: what it locked stays
// locked. Inside the layer a thread is therefore stopped only where it holds nothing of the layer's. LockHold and
// HandleUse (kernel/handles.h) see to that; other code that changes state shared by the process's threads puts a
// TerminationHold around it. A TerminationHold must not be around a wait for another process, unless that wait asks
// TerminationAsked() and comes back.
//
// State: a thread's count of holds and the address of its state word; the word is in its record (kernel/thread.h).
#pragma once

#include "base/futex.h"

#include <synchapi.h>

namespace oriel {

// The calling thread's holds; its word, null until the thread has a record (kernel/thread.h), is kTerminationAsked once
// another thread wants to stop it. Initial-exec: a signal handler reads them.
extern constinit thread_local uint32_t t_terminationHolds __attribute__((tls_model("initial-exec")));
extern constinit thread_local Word* t_terminationWord __attribute__((tls_model("initial-exec")));

constexpr uint32_t kRunning = 0;
constexpr uint32_t kTerminationAsked = 1;
constexpr uint32_t kStopped = 2; // it stands still for good

// True: give up what can be given up, and return.
inline bool TerminationAsked() {
    return t_terminationWord != nullptr && t_terminationWord->load(std::memory_order_relaxed) == kTerminationAsked;
}

// Stops the calling thread for good if that was asked.
void StopHereIfAsked();

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

// One word, never held across a wait for another process. Constant-initialised and without a destructor, so that a Lock
// works before main() and after it.
class ORIEL_LOCK_CHECK(capability("lock")) Lock {
public:
    constexpr Lock() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void Acquire() ORIEL_LOCK_CHECK(acquire_capability()) { AcquireUntil(kNever); }
    // False when the deadline passed.
    bool AcquireUntil(int64_t deadline) ORIEL_LOCK_CHECK(try_acquire_capability(true)) {
        uint32_t free = 0;
        return m_word.compare_exchange_strong(free, 1, std::memory_order_acquire) || AcquireContended(deadline);
    }
    void Release() ORIEL_LOCK_CHECK(release_capability()) {
        if (m_word.exchange(0, std::memory_order_release) == kContended) WakeOne(m_word);
    }
    // In a fork child, where no other thread is left: whoever held it is gone.
    void ForgetOwner() { m_word.store(0); }

private:
    static constexpr uint32_t kContended = 2;
    bool AcquireContended(int64_t deadline);

    Word m_word{0};
};

class ORIEL_LOCK_CHECK(scoped_lockable) LockHold {
public:
    explicit LockHold(Lock& lock) ORIEL_LOCK_CHECK(acquire_capability(lock)) : m_lock(lock) { m_lock.Acquire(); }
    ~LockHold() ORIEL_LOCK_CHECK(release_capability()) { m_lock.Release(); }
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;

private:
    TerminationHold m_hold; // before the lock is taken, until after it is released
    Lock& m_lock;
};

// For fork hooks, which take a lock in one function and release it in another.
template <Lock& lock>
void TakeForFork() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    lock.Acquire();
}
template <Lock& lock>
void ReleaseAfterFork() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    lock.Release();
}

} // namespace oriel

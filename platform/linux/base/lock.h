// The layer's own locks: one word, never held across a wait for another process, and never left locked by a thread that
// is terminated. Constant-initialised and without a destructor, so that they work before main() and after it.
#pragma once

#include "base/futex.h"
#include "base/termination.h"

#include <synchapi.h>

namespace oriel {

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

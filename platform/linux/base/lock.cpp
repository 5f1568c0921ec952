// The contended half of Lock.
#include "base/lock.h"

namespace oriel {

bool Lock::AcquireContended(int64_t deadline) {
    // Whoever had to wait once takes it as contended: there may be others asleep.
    while (m_word.exchange(kContended, std::memory_order_acquire) != 0) {
        const SleepPoint held{&m_word, kContended, false};
        if (SleepOn(&held, 1, deadline) == Awake::TimedOut) return false;
    }
    return true;
}

} // namespace oriel

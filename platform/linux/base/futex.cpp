// The futex system calls. Where the kernel cannot sleep on several words at once, a bounded poll replaces that.
//
// State: whether futex_waitv works, found once (ORIEL_NO_FUTEX_WAITV=1 in the environment turns it off, to test the
// poll); the time limits of the process (timings.h).
#include "base/futex.h"

#include "base/timings.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oriel {
namespace {

// Without futex_waitv a thread sleeps on the first word alone, and looks at the others after each slice. Of two words
// the second is the sleeper's own, which changes only when the thread is terminated, so the slice may be long.
constexpr int64_t kTwoWordSliceNs = 50 * kNsPerMs;
constexpr int64_t kManyWordsSliceNs = 2 * kNsPerMs;

enum : int { kUnknown, kPresent, kAbsent };
std::atomic<int> g_waitv{kUnknown};

bool HaveWaitv() {
    int have = g_waitv.load(std::memory_order_relaxed);
    if (have != kUnknown) return have == kPresent;
    const char* forbidden = secure_getenv("ORIEL_NO_FUTEX_WAITV");
    if (forbidden != nullptr && *forbidden == '1') {
        have = kAbsent;
    } else {
        // Without words, the call fails with EINVAL if the kernel has it, with ENOSYS if not, with EPERM if a sandbox
        // forbids it.
        syscall(SYS_futex_waitv, nullptr, 0, 0, nullptr, 0);
        have = errno == EINVAL ? kPresent : kAbsent;
    }
    g_waitv.store(have, std::memory_order_relaxed);
    return have == kPresent;
}

timespec ToTimespec(int64_t ns) {
    return {static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
}

int FutexFlags(bool shared) {
    return shared ? 0 : FUTEX_PRIVATE_FLAG;
}

Awake Outcome(long result) {
    if (result >= 0) return Awake::Look;
    switch (errno) {
    case ETIMEDOUT:
        return Awake::TimedOut;
    case EAGAIN:
    case EINTR:
        return Awake::Look;
    case ENOMEM: {
        // The kernel has no memory for the list of words at the moment. To retry soon is better than to fail a wait.
        const timespec pause = ToTimespec(kNsPerMs);
        nanosleep(&pause, nullptr);
        return Awake::Look;
    }
    default:
        return Awake::Failed;
    }
}

Awake SleepOnOne(const SleepPoint& point, int64_t deadline, uint32_t bits = FUTEX_BITSET_MATCH_ANY) {
    const timespec end = ToTimespec(deadline);
    return Outcome(syscall(SYS_futex, point.word, FUTEX_WAIT_BITSET | FutexFlags(point.shared), point.value,
                           deadline == kNever ? nullptr : &end, nullptr, bits));
}

template <uint32_t most>
[[gnu::noinline]] Awake SleepOnUpTo(const SleepPoint* points, uint32_t count, int64_t deadline, uint32_t* woken) {
    futex_waitv words[most];
    for (uint32_t i = 0; i < count; ++i)
        words[i] = {points[i].value, reinterpret_cast<uintptr_t>(points[i].word),
                    FUTEX_32 | static_cast<uint32_t>(FutexFlags(points[i].shared)), 0};
    const timespec end = ToTimespec(deadline);
    const long result = syscall(SYS_futex_waitv, words, count, 0, deadline == kNever ? nullptr : &end, CLOCK_MONOTONIC);
    if (result >= 0 && woken != nullptr) *woken = static_cast<uint32_t>(result);
    return Outcome(result);
}

bool ChangeAndWakeAll(Word& word, uint32_t operation, uint32_t operand, bool shared) {
    // FUTEX_WAKE_OP takes two addresses. Both are this word: it wakes all sleepers on the first and none on the second.
    return syscall(SYS_futex, &word, FUTEX_WAKE_OP | FutexFlags(shared), INT_MAX, 0L, &word,
                   FUTEX_OP(operation, operand, FUTEX_OP_CMP_EQ, 0)) >= 0;
}

} // namespace

int64_t MonotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

int64_t DeadlineAfter(DWORD milliseconds) {
    return milliseconds == 0xFFFFFFFFU ? kNever : MonotonicNs() + milliseconds * kNsPerMs;
}

Awake SleepOn(const SleepPoint* points, uint32_t count, int64_t deadline, uint32_t* woken) {
    if (count == 1) return SleepOnOne(points[0], deadline);
    if (HaveWaitv())
        return count <= kFewSleepPoints ? SleepOnUpTo<kFewSleepPoints>(points, count, deadline, woken)
                                        : SleepOnUpTo<kMaxSleepPoints>(points, count, deadline, woken);
    // No futex_waitv. The end of a slice is reported as Look, so that the caller looks at all objects.
    for (uint32_t i = 1; i < count; ++i)
        if (points[i].word->load() != points[i].value) return Awake::Look;
    const int64_t slice = MonotonicNs() + (count == 2 ? kTwoWordSliceNs : kManyWordsSliceNs);
    const Awake result = SleepOnOne(points[0], std::min(deadline, slice));
    return result == Awake::TimedOut && slice < deadline ? Awake::Look : result;
}

Awake SleepOnShared(const SleepPoint& point, int64_t deadline, uint32_t bits) {
    return SleepOnOne(point, deadline, bits);
}

void WakeSome(Word& word, uint32_t bits) {
    syscall(SYS_futex, &word, FUTEX_WAKE_BITSET, INT_MAX, nullptr, nullptr, bits);
}

void WakeAll(Word& word, bool shared) {
    syscall(SYS_futex, &word, FUTEX_WAKE | FutexFlags(shared), INT_MAX, nullptr, nullptr, 0);
}

void WakeOne(Word& word) {
    syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
}

bool OrAndWakeAll(Word& word, uint32_t bits, bool shared) {
    return ChangeAndWakeAll(word, FUTEX_OP_OR, bits, shared);
}

bool AddAndWakeAll(Word& word, uint32_t amount, bool shared) {
    return ChangeAndWakeAll(word, FUTEX_OP_ADD, amount, shared);
}

Timings g_timings;

} // namespace oriel

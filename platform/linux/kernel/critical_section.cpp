// Critical sections. State: all of it in the section's record. LockWord is 0 free, 1 locked, 2 locked with sleepers.
#include "base/lock.h"

#include <processthreadsapi.h>
#include <synchapi.h>

namespace oriel {
namespace {

constexpr uint32_t kFree = 0;
constexpr uint32_t kLocked = 1;
constexpr uint32_t kContended = 2;

static_assert(sizeof(Word) == sizeof(LONG) && alignof(Word) == alignof(LONG));
Word& LockWord(LPCRITICAL_SECTION section) {
    return *reinterpret_cast<Word*>(&section->LockWord);
}
// Other threads may read it while the owner writes it. It equals a thread's number only if that thread wrote it.
Word& Owner(LPCRITICAL_SECTION section) {
    return *reinterpret_cast<Word*>(&section->OwningThread);
}

bool EnterAgain(LPCRITICAL_SECTION section) {
    if (Owner(section).load(std::memory_order_relaxed) != GetCurrentThreadId()) return false;
    ++section->RecursionCount;
    return true;
}

void TakeOwnership(LPCRITICAL_SECTION section) {
    Owner(section).store(GetCurrentThreadId(), std::memory_order_relaxed);
    section->RecursionCount = 1;
}

bool TryEnter(LPCRITICAL_SECTION section) {
    if (EnterAgain(section)) return true;
    uint32_t free = kFree;
    if (!LockWord(section).compare_exchange_strong(free, kLocked, std::memory_order_acquire)) return false;
    TakeOwnership(section);
    return true;
}

} // namespace
} // namespace oriel

using namespace oriel;

void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION section) {
    *section = {};
}

void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section) {
    *section = {};
}

void WINAPI EnterCriticalSection(LPCRITICAL_SECTION section) ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    if (TryEnter(section)) return;
    TerminationHold hold;
    Word& word = LockWord(section);
    while (word.exchange(kContended, std::memory_order_acquire) != kFree) {
        SleepPoint points[2] = {{&word, kContended, false}};
        uint32_t count = 1;
        // A thread in its outermost call of the layer can be terminated while it waits.
        if (t_terminationWord != nullptr && t_terminationHolds == 1)
            points[count++] = {t_terminationWord, kRunning, false};
        SleepOn(points, count, kNever);
        if (count == 2 && TerminationAsked()) {
            // This thread may have used up the wake-up for one sleeper, and is about to stop: pass it on.
            WakeOne(word);
            StopHereIfAsked();
        }
    }
    TakeOwnership(section);
}

BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION section) ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    return TryEnter(section);
}

void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION section) ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    if (Owner(section).load(std::memory_order_relaxed) != GetCurrentThreadId()) return; // another thread's, or nobody's
    if (--section->RecursionCount != 0) return;
    TerminationHold hold; // from unlocking to waking
    Owner(section).store(0, std::memory_order_relaxed);
    if (LockWord(section).exchange(kFree, std::memory_order_release) == kContended) WakeOne(LockWord(section));
}

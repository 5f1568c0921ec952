// Sleeping on words of memory until they change, and waking who sleeps there.
//
// A word in memory that other processes map is `shared`. Times are absolute, in nanoseconds of the monotonic clock.
#pragma once

#include <atomic>
#include <cstdint>
#include <windef.h>

namespace oriel {

using Word = std::atomic<uint32_t>;
static_assert(sizeof(Word) == 4 && Word::is_always_lock_free);

constexpr int64_t kNever = INT64_MAX;
constexpr int64_t kNsPerMs = 1'000'000;

int64_t MonotonicNs();
// The end of a wait as Win32 gives it: INFINITE is kNever.
int64_t DeadlineAfter(DWORD milliseconds);

// One word to sleep on, and the value it has to have for the sleep to begin.
struct SleepPoint {
    Word* word;
    uint32_t value;
    bool shared;
};
constexpr uint32_t kMaxSleepPoints = 65; // 64 objects, and the sleeper's own word

enum class Awake {
    Look,     // a word has changed, or a signal came, or a slice of a longer sleep is over: look again
    TimedOut, // the deadline has passed
    Failed,   // a word cannot be read any more
};
Awake SleepOn(const SleepPoint* points, uint32_t count, int64_t deadline);

void WakeAll(Word& word, bool shared);
void WakeOne(Word& word); // private

// Change and wake in one system call, so that no process can die between the two and leave a sleeper behind. False when
// the word cannot be written.
bool OrAndWakeAll(Word& word, uint32_t bits, bool shared);
bool AddAndWakeAll(Word& word, uint32_t amount, bool shared);

} // namespace oriel

// Sleeps on 32-bit words of memory until they change, and wake-ups for the sleepers.
//
// `shared`: the word lies in memory that other processes map. Deadlines are absolute, in nanoseconds of
// CLOCK_MONOTONIC. State: futex.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <windef.h>

namespace oriel {

using Word = std::atomic<uint32_t>;
static_assert(sizeof(Word) == 4 && Word::is_always_lock_free);

// The deadline of a sleep without time limit.
constexpr int64_t kNever = INT64_MAX;
constexpr int64_t kNsPerMs = 1'000'000;

int64_t MonotonicNs();
// The deadline of a Win32 time-out; kNever for INFINITE.
int64_t DeadlineAfter(DWORD milliseconds);

// A word to sleep on. The sleep begins only if the word has this value.
struct SleepPoint {
    Word* word;
    uint32_t value;
    bool shared;
};
constexpr uint32_t kMaxSleepPoints = 65; // 64 objects and the state word of the thread
// A thread that sleeps on no more needs little of its stack.
constexpr uint32_t kFewSleepPoints = 5;

enum class Awake {
    Look, // a word may have changed: look again. Also after a signal, or a slice of a longer sleep
    TimedOut,
    Failed, // a word cannot be read: its file was truncated
};
// Sleeps until one of the words changes, it is woken, or the deadline passes. At most kMaxSleepPoints points. woken:
// gets the index of the point that ended the sleep, and stays as it is when that is not known.
Awake SleepOn(const SleepPoint* points, uint32_t count, int64_t deadline, uint32_t* woken = nullptr);

// The same for one word of shared memory. bits: not 0; of those by which WakeSome chooses whom it wakes.
Awake SleepOnShared(const SleepPoint& point, int64_t deadline, uint32_t bits);
void WakeSome(Word& word, uint32_t bits);

// Wakes the threads that sleep on the word, without a change of it.
void WakeAll(Word& word, bool shared);
void WakeOne(Word& word); // one sleeper of a private word

// Change the word and wake all sleepers in one system call: a process that dies cannot change the word without waking
// them. False when the word cannot be written.
bool OrAndWakeAll(Word& word, uint32_t bits, bool shared);
bool AddAndWakeAll(Word& word, uint32_t amount, bool shared);

} // namespace oriel

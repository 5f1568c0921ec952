// Thread records: a thread gets one when the layer first needs it. State: thread.cpp.
#pragma once

#include "base/list.h"
#include "kernel/handles.h"

#include <cstddef>

namespace oriel {

struct MutexObject;

// Value of the state word, after those of base/lock.h: the thread has ended by itself.
constexpr uint32_t kLeft = 3;

// What other threads may ask about a thread. The thread and every handle hold a reference.
struct ThreadObject : Object {
    Word state{kRunning}; // kRunning, kTerminationAsked, kStopped, kLeft
    // Of OrielSleepFrom (light_sleep.cpp).
    Word turn{0}; // odd: the thread may be asleep; moves before each of its looks
    std::atomic<bool> roused{false};
    std::atomic<Word*> sleepsOn{nullptr};
    Word ended{0};    // 1 once it has ended
    Word threadId{0}; // 0 until it runs
    std::atomic<DWORD> exitCode{STATUS_PENDING};
    bool lastRound = false; // its destructors have been run once
    // Those it owns. Touched by itself, and by nobody else before it stands still or has left.
    List<MutexObject> mutexes;
};

extern const ObjectType kThreadType;

// The record of the calling thread, made on demand. Null when memory is lacking.
ThreadObject* CurrentThread();

// Makes a thread that sleeps by OrielSleepFrom look again. Returns when it has, is not asleep, or at the deadline.
void Rouse(ThreadObject& thread, int64_t deadline);

// Marks the thread as ended and wakes its waiters.
void AnnounceEnd(ThreadObject& thread);

// Releases all mutexes of a thread that no longer runs, as abandoned (mutex.cpp).
void AbandonMutexes(ThreadObject& thread);

// Starts a detached thread. All signals are blocked except faults and real-time signals. stackSize: usable bytes; 0 for
// the usual size. Returns 0 or a value of errno.
int StartThread(size_t stackSize, void* (*procedure)(void*), void* argument);

// For the layer's own threads, which call only the system and handlers that a program registered.
constexpr size_t kOwnStackSize = 65536;

} // namespace oriel

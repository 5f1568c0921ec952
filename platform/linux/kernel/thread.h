// Threads: the record that each has once the layer needs it.
#pragma once

#include "kernel/handles.h"

#include <cstddef>

namespace oriel {

struct MutexObject;

// A thread's state, beside those of base/lock.h: it has come to its end by itself.
constexpr uint32_t kLeft = 3;

// What another thread may want to know of this one. The thread itself and every handle hold a reference.
struct ThreadObject : Object {
    Word state{kRunning}; // kRunning, kTerminationAsked, kStopped, kLeft
    Word ended{0};        // 1: ready to a wait
    Word threadId{0};     // 0 until it has begun
    std::atomic<DWORD> exitCode{STATUS_PENDING};
    bool lastRound = false; // its destructors have been run once
    MutexObject* mutexes =
        nullptr; // those it owns; touched by itself, and by nobody before it stands still or has left
};

extern const ObjectType kThreadType;

// The calling thread's record, made when there is none. Null when there is no memory for it.
ThreadObject* CurrentThread();

// The thread has ended: wakes who waits for it.
void AnnounceEnd(ThreadObject& thread);

// Gives up all mutexes of a thread that runs no longer (mutex.cpp).
void AbandonMutexes(ThreadObject& thread);

// Starts a detached thread with all signals blocked but its own faults and the real-time ones. 0, or a value of errno.
int StartThread(size_t stackSize, void* (*procedure)(void*), void* argument);

// Stack of the layer's own threads, which call nothing but the system and the handlers that a program gave them.
constexpr size_t kOwnStackSize = 65536;

} // namespace oriel

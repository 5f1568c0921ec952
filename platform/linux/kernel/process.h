// Processes that have a handle here, and the thread that waits for their end.
#pragma once

#include "kernel/handles.h"

namespace oriel {

struct ProcessObject : Object {
    DWORD id = 0;
    int descriptor = -1; // pidfd
    bool child = false;  // of this process, and to be reaped
    Word ended{0};       // 1: ready to a wait
    std::atomic<DWORD> exitCode{STATUS_PENDING};
    std::atomic<bool> exitCodeKnown{false};
    std::atomic<DWORD> exitCodeGiven{STATUS_PENDING}; // by TerminateProcess

    // The watcher's (reaper.cpp), under its lock.
    bool watched = false;
    ProcessObject* next = nullptr;
};

extern const ObjectType kProcessType;

// From now on, `ended` tells of the end, and a child is reaped then. While a child is watched, the watcher holds one of
// the references. False when that cannot be done.
bool WatchProcess(ProcessObject& process);

// For an object about to be deleted.
void StopWatching(ProcessObject& process);

// Looks, and takes note if it has ended.
bool HasEnded(ProcessObject& process);

} // namespace oriel

// Processes with a handle, and the thread that waits for their end. State: the records; the list of the watched ones
// (reaper.cpp).
#pragma once

#include "kernel/handles.h"

namespace oriel {

// Deleted with the last reference.
struct ProcessObject : Object {
    DWORD id = 0;
    int descriptor = -1; // pidfd
    bool child = false;  // of this process, which reaps it
    Word ended{0};       // 1 once it has ended
    // Valid when exitCodeKnown: a status of 0 to 255, the code given to TerminateProcess, or 128 plus the signal.
    std::atomic<DWORD> exitCode{STATUS_PENDING};
    std::atomic<bool> exitCodeKnown{false};
    std::atomic<DWORD> exitCodeGiven{STATUS_PENDING}; // to TerminateProcess

    // Of the watcher (reaper.cpp), under its lock.
    bool watched = false;
    ProcessObject* next = nullptr;
    ProcessObject* previous = nullptr;
};

extern const ObjectType kProcessType;

// From now on `ended` is set at the end of the process, and a child is reaped. While it watches a child, the watcher
// holds a reference. False when the process cannot be watched.
bool WatchProcess(ProcessObject& process);

// Before a record is deleted.
void StopWatching(ProcessObject& process);

// Whether the process has ended. The first call after the end records it and reaps a child.
bool HasEnded(ProcessObject& process);

} // namespace oriel

// Thread records: a manager's long-running threads, and how they are stopped.
//
// Every record of a manager's list (ManagerRecord.registrations) begins with a ThreadRecord and is a zero-filled block
// of the heap. The list is changed under g_managerLock. A thread neither closes its handles nor frees its record: it
// ends when its stop event is set, and whoever stopped it releases everything. The exception is a thread that stops its
// own record, because a callback cancels its registration; it releases everything itself when it ends, and the library
// stays loaded until then.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"

#include <windows.h>

#include <stddef.h>
#include <stdint.h>

struct ThreadRecord {
    ThreadRecord* next; // null: the last one
    uint32_t threadId;
    HANDLE thread;
    HANDLE stopEvent;       // unnamed, manual-reset
    HANDLE begunEvent;      // the same: set when the watches are in place
    ManagerRecord* manager; // a reference, which keeps alive what the thread uses of the manager; or null
    ThreadProc procedure;   // run by the thread, with the record as its parameter
    bool stoppedByItself;   // used by the thread only, like the pin that it then has
    ThreadPin pin;
};

// The record behind which a new one is appended; null for an empty list.
ThreadRecord* FindLastRegistration(ThreadRecord* head);

// Creates the events and starts the thread, with a stack of 64 KiB; the record takes a reference to the manager. False:
// nothing was started, and the caller keeps the record.
bool StartThreadRecord(ThreadRecord* record, ManagerRecord* manager, ThreadProc procedure);

// Waits until the thread says that it has begun, so that a later write is not missed. A stopped service delays this by
// Timings.beginWait at most. The thread may need a named mutex to begin, so the caller must not hold one.
void AwaitThreadBegun(const ThreadRecord& record);
// Called by the thread: its watches are in place, and its next step is to wait.
void ThreadHasBegun(const ThreadRecord& record);

// Stops the thread of a record that is on no list any more, and frees the record. A thread that does not end in time
// (Timings.cancelWait) is terminated. The caller holds no lock. Called in the thread itself, it returns at once, and
// the record is freed when the thread ends.
void StopThreadRecord(ThreadRecord* record) EXCLUDES(g_managerLock);

// The same for a whole list: all threads are asked to stop before the first one is waited for (Timings.closeWait for
// all of them together).
void StopThreadRecords(ThreadRecord* head) EXCLUDES(g_managerLock);

// Thread records: the threads that work for a manager over a longer time, and how they are stopped.
//
// Every record of a manager's list (ManagerRecord.registrations) begins with a ThreadRecord and is a zero-filled block
// of the heap. The list is changed under g_managerLock. The thread never closes its handles and never frees its record:
// it ends once its stop event is set, and whoever stopped it gives all of it back. Only a thread that stops its own
// record, a callback that cancels its registration, does that itself, when it ends.
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
    HANDLE begunEvent;      // the same: the thread watches what it is to watch
    ManagerRecord* manager; // a reference: what the thread uses of the manager stays as long as the record; or null
    ThreadProc procedure;   // what the thread runs, with the record as its parameter
    bool stoppedByItself;   // touched by the thread alone
};
static_assert(offsetof(ThreadRecord, next) == 0 && offsetof(ThreadRecord, threadId) == sizeof(void*) &&
              offsetof(ThreadRecord, thread) == 2 * sizeof(void*) &&
              offsetof(ThreadRecord, stopEvent) == 3 * sizeof(void*));

// The record that a new one is appended behind; null for an empty list.
ThreadRecord* FindLastRegistration(ThreadRecord* head);

// Makes the events and starts the thread, with a stack of 64 KiB; the record takes a reference to the manager. False:
// nothing has been started, and the record is still the caller's.
bool StartThreadRecord(ThreadRecord* record, ManagerRecord* manager, ThreadProc procedure);

// Waits until the thread says that it has begun, so that what is written from then on is not missed. A service that
// stands still holds it up no longer than Timings.beginWait. The thread may need a named mutex to begin: nobody calls
// this who holds one.
void AwaitThreadBegun(const ThreadRecord& record);
// For the thread to say: its watches are in place, and next it waits.
void ThreadHasBegun(const ThreadRecord& record);

// Stops the thread of a record that is on no list any more, and frees the record. A thread that does not end in time
// (Timings.cancelWait) is terminated. Called without a lock. In the thread itself it returns at once, and the record is
// freed when the thread ends.
void StopThreadRecord(ThreadRecord* record) EXCLUDES(g_managerLock);

// The same for a whole list: all threads are told before the first is waited for (Timings.closeWait each).
void StopThreadRecords(ThreadRecord* head) EXCLUDES(g_managerLock);

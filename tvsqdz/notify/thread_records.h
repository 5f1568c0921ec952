// Thread records: the threads that work for a manager over a longer time, and how they are stopped.
//
// Every record of a manager's list (ManagerRecord.registrations) begins with a ThreadRecord and is a zero-filled block
// of the heap. The list is changed under g_managerLock. The thread never closes its handles and never frees its record:
// it ends once its stop event is set, and whoever stopped it gives both back.
#pragma once

#include <windows.h>

#include <stdint.h>

struct ThreadRecord {
    ThreadRecord* next; // null: the last one
    uint32_t threadId;
    HANDLE thread;
    HANDLE stopEvent; // unnamed, manual-reset
};

// The record that a new one is appended behind; null for an empty list.
ThreadRecord* FindLastRegistration(ThreadRecord* head);

// Stops the thread of a record that is on no list any more, and frees the record. A thread that does not end in time
// (Timings.cancelWait) is terminated. Called without a lock; not by the thread itself.
void StopThreadRecord(ThreadRecord* record);

// The same for a whole list: all threads are told before the first is waited for (Timings.closeWait each).
void StopThreadRecords(ThreadRecord* head);

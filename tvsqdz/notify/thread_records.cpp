// Both forms of the stop. A terminated thread leaves locked what it had locked, so termination is what is left when a
// thread has had its time.
#include "notify/thread_records.h"

#include "frame/heap.h"
#include "frame/timings.h"

namespace {

constexpr DWORD kTerminatedExitCode = 0;

void EndThread(HANDLE thread, DWORD boundMs) {
    if (WaitForSingleObject(thread, boundMs) == WAIT_TIMEOUT) TerminateThread(thread, kTerminatedExitCode);
}

void FreeRecord(ThreadRecord* record) {
    CloseHandle(record->stopEvent);
    CloseHandle(record->thread);
    FreeBlock(record);
}

} // namespace

ThreadRecord* FindLastRegistration(ThreadRecord* head) {
    if (head == nullptr) return nullptr;
    while (head->next != nullptr)
        head = head->next;
    return head;
}

void StopThreadRecord(ThreadRecord* record) {
    SetEvent(record->stopEvent);
    EndThread(record->thread, g_timings.cancelWait);
    FreeRecord(record);
}

void StopThreadRecords(ThreadRecord* head) {
    for (ThreadRecord* record = head; record != nullptr; record = record->next)
        SetEvent(record->stopEvent);
    while (head != nullptr) {
        ThreadRecord* record = head;
        head = record->next;
        DWORD exitCode = STILL_ACTIVE;
        if (!GetExitCodeThread(record->thread, &exitCode))
            TerminateThread(record->thread, kTerminatedExitCode);
        else if (exitCode == STILL_ACTIVE)
            EndThread(record->thread, g_timings.closeWait);
        FreeRecord(record);
    }
}

// Starting and stopping threads. Termination is the last resort: a terminated thread leaves its locks locked. No state
// but the records.
#include "manager/thread_records.h"

#include "base/memory.h"
#include "base/timings.h"
#include "machine/objects.h"
#include "product/signal_wait.h"

namespace {

constexpr SIZE_T kStackSize = 65536;
constexpr DWORD kTerminatedExitCode = 0;

void CloseHandles(const ThreadRecord* record) {
    for (const HANDLE handle : {record->thread, record->stopEvent, record->begunEvent})
        if (handle != nullptr) CloseHandle(handle);
}

void FreeRecord(ThreadRecord* record) {
    CloseHandles(record);
    ManagerRecord* manager = record->manager;
    FreeBlock(record);
    if (manager != nullptr) ReleaseManager(manager);
}

// It may sleep on other events than the one that ends it.
void AskToEnd(const ThreadRecord* record) {
    SetEvent(record->stopEvent);
    product::Rouse(record->thread);
}

bool IsOwn(const ThreadRecord* record) {
    return record->threadId == GetCurrentThreadId();
}

// Nobody else waits for this thread now. A library that cannot be pinned is being unloaded, by this thread.
void LeaveToItself(ThreadRecord* record) {
    record->stoppedByItself = true;
    CountAsCall(&record->pin);
}

DWORD WINAPI RunRecord(void* parameter) {
    auto* record = static_cast<ThreadRecord*>(parameter);
    const DWORD result = record->procedure(record);
    if (!record->stoppedByItself) return result;
    const ThreadPin pin = record->pin;
    FreeRecord(record);
    UncountAndExitThread(pin, result);
}

// False when the thread still runs; what it uses must then stay.
bool Terminate(HANDLE thread) {
    {
        // A callback may be inside a call of the library. Terminated while we hold this lock, it cannot hold the lock
        // itself.
        const ManagerLockHold lock;
        if (!TerminateThread(thread, kTerminatedExitCode)) return false;
    }
    return WaitForSingleObject(thread, g_timings.terminatedWait) == WAIT_OBJECT_0;
}

bool EndThread(HANDLE thread, DWORD boundMs) {
    return WaitForSingleObject(thread, boundMs) != WAIT_TIMEOUT || Terminate(thread);
}

// When the process ends, a thread may still be in an unbounded call of the service. So the service is asked before the
// thread gets its full time.
DWORD TimeToEnd(const ThreadRecord* record, DWORD closeLeft) {
    const DWORD left = LeftForCalls();
    if (left >= closeLeft || record->manager == nullptr) return closeLeft;
    if (WaitForSingleObject(record->thread, left) == WAIT_TIMEOUT && !CallsWereGivenUp()) {
        product::DatabaseInfo info;
        GetDatabaseInfo(record->manager->masterDatabase, &info);
    }
    return CallsWereGivenUp() ? g_timings.detachThread : closeLeft;
}

// Does not wait for a thread that has ended. closeLeft: of the time that the threads of the list have together.
bool EndThreadOfList(const ThreadRecord* record, DWORD closeLeft) {
    DWORD exitCode = STILL_ACTIVE;
    if (!GetExitCodeThread(record->thread, &exitCode)) return Terminate(record->thread);
    return exitCode != STILL_ACTIVE || EndThread(record->thread, TimeToEnd(record, closeLeft));
}

} // namespace

ThreadRecord* FindLastRegistration(ThreadRecord* head) {
    if (head == nullptr) return nullptr;
    while (head->next != nullptr)
        head = head->next;
    return head;
}

bool StartThreadRecord(ThreadRecord* record, ManagerRecord* manager, ThreadProc procedure) {
    record->stopEvent = CreateEventA(ObjectSecurity(), TRUE, FALSE, nullptr);
    record->begunEvent = CreateEventA(ObjectSecurity(), TRUE, FALSE, nullptr);
    record->procedure = procedure;
    record->manager = manager;
    InterlockedIncrement(&manager->references);
    DWORD threadId = 0;
    if (record->stopEvent != nullptr && record->begunEvent != nullptr)
        record->thread = CreateThread(nullptr, kStackSize, RunRecord, record, 0, &threadId);
    if (record->thread == nullptr) {
        CloseHandles(record);
        ReleaseManager(manager); // not the last reference: the caller has one
        return false;
    }
    record->threadId = threadId;
    return true;
}

void AwaitThreadBegun(const ThreadRecord& record) {
    const HANDLE begunOrEnded[] = {record.begunEvent, record.thread};
    WaitForMultipleObjects(2, begunOrEnded, FALSE, g_timings.beginWait);
}

void ThreadHasBegun(const ThreadRecord& record) {
    SetEvent(record.begunEvent);
}

void StopThreadRecord(ThreadRecord* record) {
    AskToEnd(record);
    if (IsOwn(record))
        LeaveToItself(record);
    else if (EndThread(record->thread, g_timings.cancelWait))
        FreeRecord(record);
}

void StopThreadRecords(ThreadRecord* head) {
    for (ThreadRecord* record = head; record != nullptr; record = record->next)
        AskToEnd(record);
    const DWORD start = GetTickCount();
    while (head != nullptr) {
        ThreadRecord* record = head;
        head = record->next;
        const DWORD waited = GetTickCount() - start;
        if (IsOwn(record))
            LeaveToItself(record);
        else if (EndThreadOfList(record, waited < g_timings.closeWait ? g_timings.closeWait - waited : 0))
            FreeRecord(record);
    }
}

// State: the task of each thread, a block of the heap that passes to the thread with its start.
#include "requests/request_threads.h"

#include "base/heap.h"
#include "base/timings.h"
#include "machine/process_state.h"
#include "notify/relayed_registrations.h"
#include "product/guards.h"
#include "requests/exchange.h"
#include "requests/results.h"

#include <string.h>

namespace {

constexpr SIZE_T kStackSize = 65536;
constexpr char kRefreshStatus[] = "RefreshStatus";

struct RequestTask {
    ManagerRecord* manager; // a reference
    StatusRequest request;
    DWORD mutexWait;      // of the starter
    uint32_t refreshSize; // of the text behind this record, its NUL included; 0: there is none

    BYTE* RefreshText() { return reinterpret_cast<BYTE*>(this + 1); }
};

RequestKind KindOf(const StatusRequest& request) {
    if ((request.requestFlags & REQ_WRITE) == 0) return RequestKind::Read;
    return request.isRefresh != 0 ? RequestKind::Refresh : RequestKind::Write;
}

// The exchange. The request mutex is held.
Status CarryOut(RequestTask& task, DWORD mutexWait) {
    const PrinterRequest request = RequestOf(task.manager, KindOf(task.request), task.request.variableName);
    if (task.request.useForward == 0) {
        // The starter may have been the one to find its predecessor dead.
        if (task.mutexWait == WAIT_ABANDONED) mutexWait = WAIT_ABANDONED;
        return AskPrinterSide(request, mutexWait, g_timings.answerBound);
    }
    if (task.refreshSize != 0)
        WriteVariable(request.printerDatabase, kRefreshStatus, task.RefreshText(), task.refreshSize);
    if (const Status status = PostForwardedRequest(request); status != TVS_OK) return status;
    return ForwardPostedRequest(request, task.request.printerName);
}

void PerformRead(RequestTask& task) {
    const MutexHold lock(task.manager->requestMutex);
    if (lock.held != nullptr) CarryOut(task, lock.result); // how it ended, the variable tells
    TellCompletion(task.request);
}

bool CanBeTold(const StatusRequest& request) {
    return (request.requestFlags & REQ_BY_EVENT) != 0 || IsWindow(WindowFromStored(request.target));
}

void PerformWrite(RequestTask& task) {
    MutexHold lock;
    Status result = TVS_E_REQUEST_LOCK;
    if (lock.Acquire(task.manager->requestMutex, g_timings.requestLockBound)) result = CarryOut(task, lock.result);
    if (!CanBeTold(task.request)) {
        RemoveRequest(task.manager, task.request.requestId);
        return;
    }
    RecordResult(task.manager, task.request.requestId, result);
    TellCompletion(task.request);
}

void Finish(RequestTask* task) {
    ReleaseManager(task->manager);
    FreeBlock(task);
    UncountAsCall(); // from here on the library may be gone
}

DWORD WINAPI ReadRequestThread(void* parameter) {
    auto* task = static_cast<RequestTask*>(parameter);
    PerformRead(*task);
    Finish(task);
    return 0;
}

DWORD WINAPI WriteRequestThread(void* parameter) {
    auto* task = static_cast<RequestTask*>(parameter);
    PerformWrite(*task);
    Finish(task);
    return 0;
}

} // namespace

bool StartRequestThread(ManagerRecord* manager, const StatusRequest& request, const CallerValue::Bytes* refresh,
                        DWORD mutexWait) {
    const uint32_t refreshSize = refresh != nullptr ? refresh->size : 0;
    auto* task = static_cast<RequestTask*>(AllocateZeroed(sizeof(RequestTask) + refreshSize));
    if (task == nullptr) return false;
    *task = {.manager = manager, .request = request, .mutexWait = mutexWait, .refreshSize = refreshSize};
    if (refreshSize != 0) memcpy(task->RefreshText(), refresh->data, refreshSize);
    InterlockedIncrement(&manager->references);
    CountAsCall();
    const bool writes = (request.requestFlags & REQ_WRITE) != 0;
    const HANDLE thread =
        CreateThread(nullptr, kStackSize, writes ? WriteRequestThread : ReadRequestThread, task, 0, nullptr);
    if (thread == nullptr) {
        Finish(task);
        return false;
    }
    CloseHandle(thread);
    return true;
}

void TellCompletion(const StatusRequest& request) {
    if ((request.requestFlags & REQ_BY_EVENT) != 0)
        SetEvent(ULongToHandle(request.target));
    else
        PostMessageA(WindowFromStored(request.target), request.message, 0, 0);
}

// Threads and results of asynchronous requests. State: the task of each thread, a heap block that the thread owns from
// its start; the results are in the printer's database.
#include "requests/threads.h"

#include "base/memory.h"
#include "base/timings.h"
#include "machine/process_state.h"
#include "notify/relayed_registrations.h"
#include "product/guards.h"
#include "product/variable_names.h"
#include "requests/exchange.h"
#include "values/stored_list.h"

#include <string.h>

namespace {

constexpr SIZE_T kStackSize = 65536;

struct RequestTask {
    ManagerRecord* manager; // a reference
    StatusRequest request;
    ThreadPin pin;
    DWORD mutexWait;  // of the starter
    bool placesValue; // the one behind this record
    PlacedValue value;
};

RequestKind KindOf(const StatusRequest& request) {
    if ((request.requestFlags & REQ_WRITE) == 0) return RequestKind::Read;
    return request.isRefresh != 0 ? RequestKind::Refresh : RequestKind::Write;
}

// The exchange. The caller holds the request mutex.
Status CarryOut(RequestTask& task, DWORD mutexWait) {
    const char* name = task.request.variableName;
    const ManagerDatabase& database = task.manager->printerDatabase;
    if (task.placesValue && !IsStillPlaced(database, name, task.value.writes))
        if (const Status status = PlaceBytes(database, name, task.value.bytes); status != TVS_OK) return status;
    const PrinterRequest request = RequestOf(task.manager, KindOf(task.request), name);
    if (task.request.useForward == 0) {
        // The starter may have been the one that found its predecessor dead.
        if (task.mutexWait == WAIT_ABANDONED) mutexWait = WAIT_ABANDONED;
        return AskPrinterSide(request, mutexWait, g_timings.answerBound);
    }
    if (const Status status = PostForwardedRequest(request); status != TVS_OK) return status;
    return ForwardPostedRequest(request, task.request.printerName);
}

void PerformRead(RequestTask& task) {
    const MutexHold lock(task.manager->requestMutex);
    if (lock.held != nullptr) CarryOut(task, lock.result); // the variable says how it ended
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

ThreadPin Release(RequestTask* task) {
    const ThreadPin pin = task->pin;
    ReleaseManager(task->manager);
    FreeBlock(task);
    return pin;
}

DWORD WINAPI ReadRequestThread(void* parameter) {
    auto* task = static_cast<RequestTask*>(parameter);
    PerformRead(*task);
    UncountAndExitThread(Release(task), 0);
}

DWORD WINAPI WriteRequestThread(void* parameter) {
    auto* task = static_cast<RequestTask*>(parameter);
    PerformWrite(*task);
    UncountAndExitThread(Release(task), 0);
}

} // namespace

bool StartRequestThread(ManagerRecord* manager, const StatusRequest& request, const PlacedValue* value,
                        DWORD mutexWait) {
    const SIZE_T valueSize = value != nullptr ? value->bytes.size : 0;
    auto* task = static_cast<RequestTask*>(AllocateZeroed(sizeof(RequestTask) + valueSize));
    if (task == nullptr) return false;
    task->manager = manager;
    task->request = request;
    task->mutexWait = mutexWait;
    task->placesValue = value != nullptr;
    if (value != nullptr) {
        auto* bytes = reinterpret_cast<BYTE*>(task + 1);
        memcpy(bytes, value->bytes.data, valueSize);
        task->value = {.bytes = {bytes, value->bytes.size}, .writes = value->writes};
    }
    InterlockedIncrement(&manager->references);
    HANDLE thread = nullptr;
    const bool writes = (request.requestFlags & REQ_WRITE) != 0;
    if (CountAsCall(&task->pin))
        thread = CreateThread(nullptr, kStackSize, writes ? WriteRequestThread : ReadRequestThread, task, 0, nullptr);
    if (thread == nullptr) {
        UncountAsCall(Release(task));
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

namespace {

struct RequestResult {
    uint32_t requestId;
    int32_t result;
};
static_assert(sizeof(RequestResult) == 8 && offsetof(RequestResult, requestId) == 0);

// The list. Holds the database mutex as long as it lives; the list is not to be used when it cannot be had.
struct ResultList {
    explicit ResultList(ManagerRecord* manager)
        : lock(*manager), list(manager->printerDatabase, kResultsVariable, sizeof(RequestResult)) {}

    RequestResult Entry(uint32_t i) const {
        RequestResult entry;
        memcpy(&entry, list.Item(i), sizeof entry);
        return entry;
    }
    // The place of the request; the count when it is not there.
    uint32_t Find(uint32_t requestId) const {
        uint32_t i = 0;
        while (i < list.Count() && Entry(i).requestId != requestId)
            ++i;
        return i;
    }

    DatabaseLock lock;
    StoredList list;
};

// Changes the entry of the request. Nobody would hear of a failure, so this waits for memory and for the mutex, which
// is released meanwhile; a change that the service refuses is lost.
template <typename Change>
void ChangeEntry(ManagerRecord* manager, uint32_t requestId, Change change) {
    for (;;) {
        ResultList results(manager);
        const Status loaded = results.lock.held ? results.list.Load() : TVS_E_MEMORY;
        if (loaded == TVS_OK) {
            const uint32_t place = results.Find(requestId);
            if (place == results.list.Count()) return;
            change(results.list, place);
            results.list.Store();
            return;
        }
        if (loaded != TVS_E_MEMORY || !CallsAreLetIn()) return;
        results.lock.Release();
        Sleep(g_timings.memoryPause);
    }
}

} // namespace

Status EnterRequest(ManagerRecord* manager, int32_t result, uint32_t* callersNumber, uint32_t* requestId) {
    ResultList results(manager);
    if (!results.lock.held) return TVS_E_REQUEST_LOCK;
    if (const Status status = results.list.Load(1); status != TVS_OK) return status;
    const RequestResult entry = {.requestId = results.list.NextNumber(), .result = result};
    if (entry.requestId == 0) return TVS_E_MEMORY;
    if (!CopyToCaller(callersNumber, &entry.requestId, sizeof entry.requestId)) return TVS_E_FAULT;
    memcpy(results.list.Append(), &entry, sizeof entry);
    *requestId = entry.requestId;
    return PassOn(results.list.Store());
}

void RecordResult(ManagerRecord* manager, uint32_t requestId, int32_t result) {
    ChangeEntry(manager, requestId, [&](StoredList& list, uint32_t place) {
        const RequestResult entry = {.requestId = requestId, .result = result};
        memcpy(list.Item(place), &entry, sizeof entry);
    });
}

void RemoveRequest(ManagerRecord* manager, uint32_t requestId) {
    ChangeEntry(manager, requestId, [](StoredList& list, uint32_t place) { list.Remove(place); });
}

Status TakeResult(ManagerRecord* manager, uint32_t requestId, int32_t* callersResult) {
    ResultList results(manager);
    if (results.lock.result == WAIT_TIMEOUT) return TVS_E_NOT_READY;
    if (results.list.Load() == TVS_E_MEMORY) return TVS_E_MEMORY;

    // An unreadable list does not have the result.
    const uint32_t place = results.Find(requestId);
    const bool isThere = place < results.list.Count();
    const int32_t value = isThere ? results.Entry(place).result : TVS_E_UNKNOWN;
    // Written before it is removed, so that a bad pointer loses no result.
    if (!CopyToCaller(callersResult, &value, sizeof value)) return TVS_E_FAULT;
    if (isThere) {
        results.list.Remove(place);
        results.list.Store();
    }
    return TVS_OK;
}

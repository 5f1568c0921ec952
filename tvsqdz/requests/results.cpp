// State: the printer's database.
#include "requests/results.h"

#include "base/caller_memory.h"
#include "base/timings.h"
#include "machine/process_state.h"
#include "product/guards.h"
#include "values/stored_list.h"

#include <string.h>

namespace {

constexpr char kResultsVariable[] = "ReqResult";

struct RequestResult {
    uint32_t requestId;
    int32_t result;
};
static_assert(sizeof(RequestResult) == 8 && offsetof(RequestResult, requestId) == 0);

// The list, with the database mutex held for as long as it lives.
struct ResultList {
    explicit ResultList(ManagerRecord* manager)
        : lock(manager->databaseMutex), list(manager->printerDatabase, kResultsVariable, sizeof(RequestResult)) {}

    RequestResult Entry(uint32_t i) const {
        RequestResult entry;
        memcpy(&entry, list.Item(i), sizeof entry);
        return entry;
    }
    // The place of the request's result; the count when there is none.
    uint32_t Find(uint32_t requestId) const {
        uint32_t i = 0;
        while (i < list.Count() && Entry(i).requestId != requestId)
            ++i;
        return i;
    }

    MutexHold lock;
    StoredList list;
};

// Changes the entry of the request. Nobody hears of a failure, so memory is waited for, with the mutex given back
// meanwhile; what the service does not take is lost with it.
template <typename Change>
void ChangeEntry(ManagerRecord* manager, uint32_t requestId, Change change) {
    for (;;) {
        ResultList results(manager);
        const Status loaded = results.list.Load();
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

int32_t TVS_CALL ResSetPrinterStatus(TvsManager manager, uint32_t requestId, int32_t* result) {
    const ManagerCall call(manager);
    if (!call) return TVS_E_HANDLE;
    ResultList results(call.Manager());
    if (results.lock.result == WAIT_TIMEOUT) return TVS_E_NOT_READY;
    if (results.list.Load() == TVS_E_MEMORY) return TVS_E_MEMORY;

    // A list that cannot be read has no result of this request.
    const uint32_t place = results.Find(requestId);
    const bool isThere = place < results.list.Count();
    const int32_t value = isThere ? results.Entry(place).result : TVS_E_UNKNOWN;
    // Told before it is taken off: no result may be lost to a pointer that cannot be written.
    if (!CopyToCaller(result, &value, sizeof value)) return TVS_E_FAULT;
    if (isThere) {
        results.list.Remove(place);
        results.list.Store();
    }
    return TVS_OK;
}

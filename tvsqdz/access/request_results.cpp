// Results of asynchronous write requests, which wait in the printer database until they are asked for.
#include "access/stored_list.h"
#include "frame/caller_memory.h"
#include "frame/guards.h"
#include "frame/manager_record.h"

#include <string.h>

namespace {

constexpr char kResultsVariable[] = "ReqResult";

struct RequestResult {
    uint32_t requestId;
    int32_t result;
};
static_assert(sizeof(RequestResult) == 8);

// The place of the request's result; the count when there is none.
uint32_t FindResult(const StoredList& results, uint32_t requestId, RequestResult* found) {
    for (uint32_t i = 0; i < results.Count(); ++i) {
        memcpy(found, results.Item(i), sizeof *found);
        if (found->requestId == requestId) return i;
    }
    return results.Count();
}

} // namespace

int32_t TVS_CALL ResSetPrinterStatus(TvsManager manager, uint32_t requestId, int32_t* result) {
    const ManagerCall call(manager);
    if (!call) return TVS_E_HANDLE;
    const MutexHold lock(call.Manager()->requestMutex);
    if (lock.result == WAIT_TIMEOUT) return TVS_E_NOT_READY;
    StoredList results(call.Manager()->printerDatabase, kResultsVariable, sizeof(RequestResult));
    const Status loaded = results.Load();
    if (loaded == TVS_E_MEMORY) return TVS_E_MEMORY;

    // A list that cannot be read has no result of this request.
    RequestResult found = {};
    const uint32_t place = FindResult(results, requestId, &found);
    const bool isThere = place < results.Count();
    const int32_t value = isThere ? found.result : TVS_E_UNKNOWN;
    // Told before it is taken off: no result may be lost to a pointer that cannot be written.
    if (!CopyToCaller(result, &value, sizeof value)) return TVS_E_FAULT;
    if (isThere) {
        results.Remove(place);
        results.Store();
    }
    return TVS_OK;
}

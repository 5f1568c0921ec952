// State: the printer's database.
#include "requests/relayed_requests.h"

#include "base/timings.h"

namespace {

Answer ReadRecord(ManagerRecord* manager, StatusRequest* request) {
    DWORD size = 0;
    *request = {};
    return ReadVariable(manager->printerDatabase, kRelayedRequestVariable, request, sizeof *request, &size);
}

Answer WriteRecord(ManagerRecord* manager, const StatusRequest& request) {
    return WriteVariable(manager->printerDatabase, kRelayedRequestVariable, &request, sizeof request);
}

bool IsRequest(const StatusRequest& request) {
    return request.requestFlags != 0;
}

template <SIZE_T size>
void Terminate(char (&text)[size]) {
    text[size - 1] = '\0';
}

} // namespace

Status RelayRequest(ManagerRecord* manager, const StatusRequest& request, MutexHold& lock) {
    const DWORD start = GetTickCount();
    for (;;) {
        StatusRequest present;
        if (const Answer answer = ReadRecord(manager, &present); answer != Answer::Done) return PassOn(answer);
        if (!IsRequest(present)) return PassOn(WriteRecord(manager, request));
        if (GetTickCount() - start >= g_timings.relayBound) return TVS_E_NO_OWNER;
        lock.Release();
        Sleep(g_timings.relayPause);
        if (!lock.Acquire(manager->requestMutex)) return TVS_E_REQUEST_LOCK;
    }
}

bool ReadRelayedRequest(ManagerRecord* manager, StatusRequest* request) {
    if (ReadRecord(manager, request) != Answer::Done || !IsRequest(*request)) return false;
    Terminate(request->variableName);
    Terminate(request->printerName);
    request->requestFlags = (request->requestFlags & REQ_WRITE) != 0 ? REQ_WRITE : REQ_READ;
    request->requestFlags |= REQ_BY_MESSAGE;
    return true;
}

void ClearRelayedRequest(ManagerRecord* manager) {
    WriteRecord(manager, {});
}

// The asynchronous exports: GetReqPrinterStatus and SetReqPrinterStatus by event and by message, and
// ResSetPrinterStatus. Everything that can be refused is refused on the caller's thread; the exchange runs on its own
// thread (requests/threads.h), or in the printer's owner (requests/owner.h). No state.
#include "base/memory.h"
#include "base/timings.h"
#include "exports/wide_names.h"
#include "manager/variable_index.h"
#include "notify/relayed_registrations.h"
#include "product/guards.h"
#include "requests/direct.h"
#include "requests/exchange.h"
#include "requests/owner.h"
#include "requests/threads.h"
#include "values/port_and_name.h"
#include "values/user_authority.h"
#include "values/wide_values.h"

#include <string.h>

namespace {

// How the requester is notified.
struct Completion {
    uint32_t flag; // REQ_BY_EVENT or REQ_BY_MESSAGE
    void* target;  // event or window
    uint32_t message;

    bool IsMessage() const { return flag == REQ_BY_MESSAGE; }
};

bool IsRelayed(const Completion& completion) {
    return completion.IsMessage() && !DeliversMessagesItself();
}

// Finds a variable that has this bit and SVF_DIRECT, and a name that fits a request.
Status FindRequested(ManagerRecord* manager, const char* callersName, uint32_t bit,
                     const StatusVariableDef** variable) {
    if (const Status status = FindCallersVariable(manager, callersName, variable); status != TVS_OK) return status;
    const StatusVariableDef& found = **variable;
    const uint32_t bits = bit | SVF_DIRECT;
    const RequestKind kind = bit == SVF_READABLE ? RequestKind::Read : WriteKindOf(found.name);
    const bool fits = strlen(found.name) < sizeof StatusRequest::variableName && FitsMailbox(manager, kind, found);
    return fits && (found.flags & bits) == bits ? TVS_OK : TVS_E_UNKNOWN;
}

StatusRequest NewRequest(ManagerRecord* manager, const StatusVariableDef& variable, uint32_t direction,
                         const Completion& completion) {
    StatusRequest request = {};
    request.requestFlags = direction | completion.flag;
    request.target = HandleToULong(completion.target);
    request.message = completion.message;
    memcpy(request.variableName, variable.name, strlen(variable.name));
    const DatabaseNameText database = CurrentDatabaseName(manager);
    memcpy(request.databaseName, database.text, sizeof request.databaseName);
    const PrinterNameText printer = RefreshedPrinterName(manager);
    memcpy(request.printerName, printer.text, sizeof request.printerName);
    request.useForward = UsesForwardedPath(manager) ? 1 : 0;
    return request;
}

Status CheckRead(ManagerRecord* manager) {
    if (!PrinterTakesRequests(manager)) return TVS_E_NOT_NOW;
    if (PortRefusesRequests(manager)) return TVS_E_NOT_READY;
    if ((UserAuthority(manager) & TVS_AUTHORITY_DIRECT_READ) == 0) return TVS_E_AUTHORITY;
    return SpoolerIsReady(manager->printerDatabase) ? TVS_OK : TVS_E_NOT_READY;
}

Status StartRead(TvsManager handle, const char* variable, const Completion& completion) {
    const ManagerCall call(handle);
    if (!call) return TVS_E_HANDLE;
    ManagerRecord* manager = call.Manager();
    const bool relayed = IsRelayed(completion);
    if (relayed && !OwnerProcessExists()) return TVS_E_NO_OWNER;
    const StatusVariableDef* found = nullptr;
    if (const Status status = FindRequested(manager, variable, SVF_READABLE, &found); status != TVS_OK) return status;
    if (const Status status = CheckRead(manager); status != TVS_OK) return status;

    MutexHold lock(manager->requestMutex);
    if (lock.held == nullptr) return TVS_E_REQUEST_LOCK;
    const StatusRequest request = NewRequest(manager, *found, REQ_READ, completion);
    if (relayed) return RelayRequest(manager, request, lock);
    return StartRequestThread(manager, request, nullptr, lock.result) ? TVS_OK : TVS_E_MEMORY;
}

Status CheckWrite(ManagerRecord* manager, const StatusVariableDef& variable) {
    if (!PrinterTakesRequests(manager)) return TVS_E_NOT_NOW;
    if (!MayWriteDirectly(manager, variable)) return TVS_E_AUTHORITY;
    if (PortRefusesRequests(manager)) return TVS_E_NOT_READY;
    return SpoolerIsReady(manager->printerDatabase) ? TVS_OK : TVS_E_NOT_READY;
}

// False when the number cannot be written. Used before a request, and again after a failure.
bool ResetNumber(uint32_t* callersNumber) {
    const uint32_t none = 0;
    return CopyToCaller(callersNumber, &none, sizeof none);
}

// From the lock to the start. The event form holds the database mutex, under which the result is entered; the message
// form holds the request mutex, so it waits for its turn here. The value is placed at once if it is the caller's turn,
// else by the thread.
Status PlaceAndStart(ManagerRecord* manager, const StatusVariableDef& variable, CallerValue& value,
                     const Completion& completion, uint32_t* callersNumber) {
    MutexHold lock;
    if (completion.IsMessage())
        lock.Acquire(manager->requestMutex);
    else
        lock.Acquire(manager->databaseMutex, g_timings.databaseLockBound);
    if (lock.held == nullptr) return TVS_E_REQUEST_LOCK;
    const bool isHandled = completion.IsMessage() && variable.localWrite != nullptr;
    // Not waited for, since the database mutex is the inner one of the two.
    MutexHold turn;
    PlacedValue placed = {.bytes = BytesToPlace(variable, value), .writes = 0};
    if (!isHandled) {
        const ManagerDatabase& database = manager->printerDatabase;
        Status status = CheckPlace(database, variable, placed.bytes);
        const bool isOurTurn = completion.IsMessage() || turn.Acquire(manager->requestMutex, 0);
        if (status == TVS_OK && isOurTurn) status = PlaceBytes(database, variable.name, placed.bytes, &placed.writes);
        if (status != TVS_OK) return status;
    }
    StatusRequest request = NewRequest(manager, variable, REQ_WRITE, completion);
    request.isRefresh = WriteKindOf(variable.name) == RequestKind::Refresh ? 1 : 0;
    if (isHandled) variable.localWrite(manager, value.Data(), value.Size());

    const int32_t firstResult = completion.IsMessage() ? TVS_OK : TVS_REQUEST_PENDING;
    if (const Status status = EnterRequest(manager, firstResult, callersNumber, &request.requestId); status != TVS_OK) {
        if (completion.IsMessage()) ResetNumber(callersNumber);
        return status;
    }
    if (isHandled) {
        lock.Release();
        TellCompletion(request);
        return TVS_OK;
    }
    const DWORD mutexWait = completion.IsMessage() ? lock.result : turn.result;
    if (StartRequestThread(manager, request, &placed, mutexWait)) return TVS_OK;
    RemoveRequest(manager, request.requestId);
    ResetNumber(callersNumber);
    return TVS_E_MEMORY;
}

Status StartWrite(TvsManager handle, const char* variable, const void* data, uint32_t size,
                  const Completion& completion, uint32_t* callersNumber) {
    if (!ResetNumber(callersNumber)) return TVS_E_FAULT;
    const ManagerCall call(handle);
    if (!call) return TVS_E_HANDLE;
    ManagerRecord* manager = call.Manager();
    if (IsRelayed(completion) && !OwnerProcessExists()) return TVS_E_NO_OWNER;
    const StatusVariableDef* found = nullptr;
    if (const Status status = FindRequested(manager, variable, SVF_WRITABLE, &found); status != TVS_OK) return status;
    if (const Status status = CheckWrite(manager, *found); status != TVS_OK) return status;
    CallerValue value(data, size); // before anybody has to wait
    if (value.Result() != TVS_OK) return value.Result();
    return PlaceAndStart(manager, *found, value, completion, callersNumber);
}

} // namespace

int32_t TVS_CALL GetReqPrinterStatusEventA(TvsManager manager, const char* variable, void* event) {
    return StartRead(manager, variable, {.flag = REQ_BY_EVENT, .target = event, .message = 0});
}

int32_t TVS_CALL GetReqPrinterStatusMsgA(TvsManager manager, const char* variable, void* window, uint32_t message) {
    return StartRead(manager, variable, {.flag = REQ_BY_MESSAGE, .target = window, .message = message});
}

int32_t TVS_CALL SetReqPrinterStatusEventA(TvsManager manager, const char* variable, const void* data, uint32_t size,
                                           void* event, uint32_t* requestId) {
    return StartWrite(manager, variable, data, size, {.flag = REQ_BY_EVENT, .target = event, .message = 0}, requestId);
}

int32_t TVS_CALL SetReqPrinterStatusMsgA(TvsManager manager, const char* variable, const void* data, uint32_t size,
                                         void* window, uint32_t message, uint32_t* requestId) {
    return StartWrite(manager, variable, data, size, {.flag = REQ_BY_MESSAGE, .target = window, .message = message},
                      requestId);
}

namespace {

// The caller's number is 0 after every failure, also before the ANSI form is called.
template <typename AnsiForm> // Status(const char* name, const void* data, uint32_t size)
Status StartWrite(TvsManager manager, const WCHAR* callersVariable, const void* value, uint32_t size,
                  uint32_t* requestId, AnsiForm ansiForm) {
    const uint32_t none = 0;
    if (!CopyToCaller(requestId, &none, sizeof none)) return TVS_E_FAULT;
    const auto write = [&](ManagerRecord*, const StatusVariableDef& variable, const void* data, uint32_t dataSize) {
        return ansiForm(variable.name, data, dataSize);
    };
    return ServeWideWrite(manager, callersVariable, value, size, write);
}

} // namespace

int32_t TVS_CALL GetReqPrinterStatusEventW(TvsManager manager, const TvsWideChar* variable, void* event) {
    return WithName(manager, variable,
                    [&](const char* name) { return GetReqPrinterStatusEventA(manager, name, event); });
}

int32_t TVS_CALL GetReqPrinterStatusMsgW(TvsManager manager, const TvsWideChar* variable, void* window,
                                         uint32_t message) {
    return WithName(manager, variable,
                    [&](const char* name) { return GetReqPrinterStatusMsgA(manager, name, window, message); });
}

int32_t TVS_CALL SetReqPrinterStatusEventW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                           uint32_t size, void* event, uint32_t* requestId) {
    const auto ansiForm = [&](const char* name, const void* value, uint32_t valueSize) {
        return SetReqPrinterStatusEventA(manager, name, value, valueSize, event, requestId);
    };
    return StartWrite(manager, variable, data, size, requestId, ansiForm);
}

int32_t TVS_CALL SetReqPrinterStatusMsgW(TvsManager manager, const TvsWideChar* variable, const void* data,
                                         uint32_t size, void* window, uint32_t message, uint32_t* requestId) {
    const auto ansiForm = [&](const char* name, const void* value, uint32_t valueSize) {
        return SetReqPrinterStatusMsgA(manager, name, value, valueSize, window, message, requestId);
    };
    return StartWrite(manager, variable, data, size, requestId, ansiForm);
}

int32_t TVS_CALL ResSetPrinterStatus(TvsManager manager, uint32_t requestId, int32_t* result) {
    const ManagerCall call(manager);
    return call ? TakeResult(call.Manager(), requestId, result) : TVS_E_HANDLE;
}

// Direct reads and writes. No state.
#include "requests/direct.h"

#include "base/memory.h"
#include "manager/variable_index.h"
#include "product/guards.h"
#include "requests/exchange.h"
#include "values/port_and_name.h"
#include "values/updating.h"
#include "values/user_authority.h"

bool MayWriteDirectly(const ManagerRecord* manager, const StatusVariableDef& variable) {
    return (variable.flags & SVF_WRITE_WITHOUT_AUTHORITY) != 0 ||
           (UserAuthority(manager) & TVS_AUTHORITY_DIRECT_WRITE) != 0;
}

Status AskPrinter(ManagerRecord* manager, RequestKind kind, const StatusVariableDef& variable, DWORD mutexWait) {
    const PrinterRequest request = RequestOf(manager, kind, variable.name);
    if (!UsesForwardedPath(manager)) return AskPrinterSide(request, mutexWait, INFINITE);
    if (const Status status = PostForwardedRequest(request); status != TVS_OK) return status;
    if (!SpoolerIsReady(manager->printerDatabase)) return TVS_E_NOT_READY;
    return ForwardPostedRequest(request, RefreshedPrinterName(manager).text);
}

// A direct read: the printer side stores the value from the printer, and it is then read like any other.

namespace {

constexpr uint32_t kLengthSize = sizeof(uint32_t);

bool HasLength(const StatusVariableDef& variable) {
    return (variable.flags & SVT_VARIABLE) != 0;
}

// The stored size, including the length of a variable-length value.
Status AskStoredSize(const ManagerRecord* manager, const StatusVariableDef& variable, DWORD* size) {
    *size = variable.size;
    if (!HasLength(variable)) return TVS_OK;
    const Status status = PassOn(ReadVariable(manager->printerDatabase, variable.name, nullptr, 0, size));
    if (*size < kLengthSize) *size = kLengthSize; // treated as an empty value
    return status;
}

Status CheckRead(const ManagerRecord* manager) {
    const bool refused = PortRefusesRequests(manager);
    if (!PrinterTakesRequests(manager)) return TVS_E_NOT_NOW;
    if (refused) return TVS_E_NOT_READY;
    return (UserAuthority(manager) & TVS_AUTHORITY_DIRECT_READ) != 0 ? TVS_OK : TVS_E_AUTHORITY;
}

Status GiveFetched(const ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                   uint32_t* returned) {
    // Nobody may change the value between the query for its size and the fetch.
    DatabaseLock lock;
    if (HasLength(variable) && !lock.Acquire(*manager)) return TVS_E_NOT_READY;
    DWORD total = 0;
    if (const Status status = AskStoredSize(manager, variable, &total); status != TVS_OK) return status;
    Scratch value(total);
    if (value.Data() == nullptr) return TVS_E_MEMORY;
    DWORD fetched = 0;
    if (const Answer answer = ReadVariable(manager->printerDatabase, variable.name, value.Data(), total, &fetched);
        answer != Answer::Done)
        return PassOn(answer);
    lock.Release();
    const uint32_t skipped = HasLength(variable) ? kLengthSize : 0;
    const uint32_t length = total - skipped;
    const uint32_t given = target.size < length ? target.size : length;
    if (!CopyToCaller(target.buffer, value.Data() + skipped, given)) return TVS_E_FAULT;
    *returned = given;
    return given < length ? TVS_E_SIZE : TVS_OK;
}

} // namespace

Status ReadDirect(ManagerRecord* manager, const StatusVariableDef& variable, const ReadTarget& target,
                  uint32_t* returned, bool* returnedWritten) {
    if ((variable.flags & (SVF_DIRECT | SVF_DIRECT_READ)) == 0)
        return ReadCurrent(manager, variable, target, returned, returnedWritten);
    if (!FitsMailbox(manager, RequestKind::Read, variable)) return TVS_E_UNKNOWN;
    if (const Status status = CheckRead(manager); status != TVS_OK) return status;

    const MutexHold lock(manager->requestMutex);
    if (lock.held == nullptr) return TVS_E_NOT_READY;
    if (target.size == 0) {
        DWORD stored = 0;
        if (const Status status = AskStoredSize(manager, variable, &stored); status != TVS_OK) return status;
        *returned = HasLength(variable) ? stored - kLengthSize : stored;
        return TVS_E_SIZE;
    }
    if (const Status result = AskPrinter(manager, RequestKind::Read, variable, lock.result); result != TVS_OK)
        return result;
    return GiveFetched(manager, variable, target, returned);
}

// A direct write: the value is put where the printer side takes it from, and the printer side is asked to take it.

namespace {

Status WriteByHandler(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size) {
    if (variable.localWrite == nullptr) return TVS_E_UNKNOWN;
    CallerValue value(data, size);
    if (value.Result() != TVS_OK) return value.Result();
    return variable.localWrite(manager, value.Data(), value.Size());
}

bool HasFixedSize(const StatusVariableDef& variable) {
    return (variable.flags & (SVT_STRING | SVT_VARIABLE)) == 0;
}

Status CheckWrite(const ManagerRecord* manager, const StatusVariableDef& variable, uint32_t size) {
    if (!PrinterTakesRequests(manager)) return TVS_E_NOT_NOW;
    if (!MayWriteDirectly(manager, variable)) return TVS_E_AUTHORITY;
    if (HasFixedSize(variable) && size != variable.size) return TVS_E_SIZE;
    if (PortRefusesRequests(manager)) return TVS_E_NOT_READY;
    return TVS_OK;
}

} // namespace

Status WriteDirect(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size) {
    if ((variable.flags & SVF_WRITABLE) == 0) return TVS_E_UNKNOWN;
    if ((variable.flags & SVF_DIRECT) == 0) return WriteByHandler(manager, variable, data, size);
    const RequestKind kind = WriteKindOf(variable.name);
    if (!FitsMailbox(manager, kind, variable)) return TVS_E_UNKNOWN;
    if (const Status status = CheckWrite(manager, variable, size); status != TVS_OK) return status;
    CallerValue value(data, size); // before anybody has to wait
    if (value.Result() != TVS_OK) return value.Result();

    const MutexHold lock(manager->requestMutex);
    if (lock.held == nullptr) return TVS_E_NOT_READY;
    const CallerValue::Bytes bytes = BytesToPlace(variable, value);
    Status status = CheckPlace(manager->printerDatabase, variable, bytes);
    if (status == TVS_OK) status = PlaceBytes(manager->printerDatabase, variable.name, bytes);
    if (status != TVS_OK) return status;
    return AskPrinter(manager, kind, variable, lock.result);
}

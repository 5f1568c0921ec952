// A direct read: the printer side stores the value that the printer gives, and then it is read as any other.
#include "requests/direct_access.h"

#include "base/caller_memory.h"
#include "base/heap.h"
#include "product/guards.h"
#include "requests/readiness.h"
#include "values/user_authority.h"

namespace {

constexpr uint32_t kLengthSize = sizeof(uint32_t);

bool HasLength(const StatusVariableDef& variable) {
    return (variable.flags & SVT_VARIABLE) != 0;
}

// How much the database keeps of it now, the length of a variable-length value included.
Status AskStoredSize(const ManagerRecord* manager, const StatusVariableDef& variable, DWORD* size) {
    *size = variable.size;
    if (!HasLength(variable)) return TVS_OK;
    const Status status = PassOn(ReadVariable(manager->printerDatabase, variable.name, nullptr, 0, size));
    if (*size < kLengthSize) *size = kLengthSize; // as good as an empty value
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
    // Between asking for the size and fetching the value nobody may change it.
    MutexHold lock;
    if (HasLength(variable)) lock.Acquire(manager->databaseMutex);
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

int32_t TVS_CALL GetPrinterStatusDirectA(TvsManager manager, const char* variable, void* buffer, uint32_t size,
                                         uint32_t* returnedSize) {
    return ServeRead(manager, variable, buffer, size, returnedSize, ReadDirect);
}

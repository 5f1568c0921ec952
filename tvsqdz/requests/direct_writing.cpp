// A direct write: the value is put where the printer side takes it from, and the printer side is asked to take it.
#include "requests/direct_access.h"

#include "manager/variable_lookup.h"
#include "product/guards.h"
#include "requests/readiness.h"
#include "values/caller_value.h"

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
    CallerValue value(data, size); // before anybody is held up
    if (value.Result() != TVS_OK) return value.Result();

    const MutexHold lock(manager->requestMutex);
    if (lock.held == nullptr) return TVS_E_NOT_READY;
    if (const Status status = PlaceValue(manager->printerDatabase, variable, value); status != TVS_OK) return status;
    return AskPrinter(manager, kind, variable, lock.result);
}

int32_t TVS_CALL SetPrinterStatusDirectA(TvsManager manager, const char* variable, const void* data, uint32_t size) {
    return WithVariable(manager, variable, [&](ManagerRecord* record, const StatusVariableDef& found) {
        return WriteDirect(record, found, data, size);
    });
}

// Storing a value, with the copy of a persistent variable in the driver data.
#include "values/updating.h"

#include "manager/variable_lookup.h"
#include "product/guards.h"
#include "values/caller_value.h"
#include "values/driver_data.h"
#include "values/printer_name.h"

namespace {

Status Store(ManagerRecord* manager, const StatusVariableDef& variable, CallerValue& value) {
    if (variable.localWrite != nullptr) return variable.localWrite(manager, value.Data(), value.Size());
    // Whoever reads a variable-length value asks for its size first; it must not change in between.
    MutexHold lock;
    switch (TypeOf(variable)) {
    case SVT_VARIABLE:
        lock.Acquire(manager->databaseMutex);
        break;
    case SVT_STRING:
        if (value.Size() > 0) value.Data()[value.Size() - 1] = '\0';
        break;
    default:
        break;
    }
    const CallerValue::Bytes stored = value.Stored(TypeOf(variable) == SVT_VARIABLE);
    return PassOn(WriteVariable(manager->printerDatabase, variable.name, stored.data, stored.size));
}

} // namespace

Status UpdateValue(ManagerRecord* manager, const StatusVariableDef& variable, const void* data, uint32_t size) {
    CallerValue value(data, size);
    if (value.Result() != TVS_OK) return value.Result();
    const Status status = Store(manager, variable, value);
    // The driver data lie under the name that the printer has now, which another process may have changed.
    if ((variable.flags & SVF_PERSISTENT) != 0)
        WriteDriverDataValue(RefreshedPrinterName(manager).text, variable, value.Data(), value.Size());
    return status;
}

int32_t TVS_CALL UpdatePrinterStatusA(TvsManager manager, const char* variable, const void* data, uint32_t size) {
    return WithVariable(manager, variable, [&](ManagerRecord* record, const StatusVariableDef& found) {
        return UpdateValue(record, found, data, size);
    });
}

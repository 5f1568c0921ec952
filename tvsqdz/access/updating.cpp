// Storing a value, with the copy of a persistent variable in the driver data.
#include "access/driver_data.h"
#include "catalogue/variable_lookup.h"
#include "frame/caller_memory.h"
#include "frame/guards.h"
#include "frame/heap.h"

#include <string.h>

namespace {

constexpr char kPrinterNameVariable[] = "PrinterName";
constexpr uint32_t kLengthSize = sizeof(uint32_t);

// The library's copy of the caller's data, with room for the length that a variable-length value is stored with.
struct CopiedValue {
    explicit CopiedValue(uint32_t dataSize) : block(SIZE_T{dataSize} + kLengthSize), size(dataSize) {}

    BYTE* Data() { return block.Data() + kLengthSize; }

    Scratch block;
    uint32_t size;
};

Status StoreWithLength(ManagerRecord* manager, const StatusVariableDef& variable, CopiedValue& value) {
    memcpy(value.block.Data(), &value.size, kLengthSize);
    const MutexHold lock(manager->databaseMutex);
    return PassOn(WriteVariable(manager->printerDatabase, variable.name, value.block.Data(), value.size + kLengthSize));
}

Status Store(ManagerRecord* manager, const StatusVariableDef& variable, CopiedValue& value) {
    if (variable.localWrite != nullptr) return variable.localWrite(manager, value.Data(), value.size);
    switch (TypeOf(variable)) {
    case SVT_VARIABLE:
        return StoreWithLength(manager, variable, value);
    case SVT_STRING:
        if (value.size > 0) value.Data()[value.size - 1] = '\0';
        break;
    default:
        break;
    }
    return PassOn(WriteVariable(manager->printerDatabase, variable.name, value.Data(), value.size));
}

// The driver data lie under the name that the printer has now, which another process may have changed.
void UpdateDriverData(ManagerRecord* manager, const StatusVariableDef& variable, const BYTE* data, uint32_t size) {
    PrinterNameText name;
    DWORD nameSize = 0;
    if (ReadVariable(manager->printerDatabase, kPrinterNameVariable, name.text, sizeof name.text, &nameSize) ==
            Answer::Done &&
        name.text[0] != '\0' && memchr(name.text, '\0', sizeof name.text) != nullptr)
        ChangePrinterName(manager, name);
    WriteDriverDataValue(CurrentPrinterName(manager).text, variable, data, size);
}

} // namespace

int32_t TVS_CALL UpdatePrinterStatusA(TvsManager manager, const char* variable, const void* data, uint32_t size) {
    const ManagerCall call(manager);
    if (!call) return TVS_E_HANDLE;
    const StatusVariableDef* found = nullptr;
    if (const Status status = FindCallersVariable(call.Manager(), variable, &found); status != TVS_OK) return status;
    // No value is as long; the copy, and the length in front of it, would be made for nothing.
    if (size > dblink::kValueSizeMax) return PassOn(Answer::WrongSize);
    CopiedValue value(size);
    if (value.block.Data() == nullptr) return TVS_E_MEMORY;
    if (!CopyFromCaller(value.Data(), data, size)) return TVS_E_FAULT;
    const Status status = Store(call.Manager(), *found, value);
    if ((found->flags & SVF_PERSISTENT) != 0) UpdateDriverData(call.Manager(), *found, value.Data(), size);
    return status;
}

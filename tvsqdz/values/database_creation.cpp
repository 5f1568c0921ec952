// A printer's database: every variable with its first value, and the way back to it. Keeps no state; what it writes
// lies in the service and, for persistent variables, in the registry.
#include "values/database_creation.h"

#include "base/memory.h"
#include "manager/variable_index.h"
#include "manager/variables.h"
#include "product/mailboxes.h"
#include "product/variable_types.h"
#include "values/updating.h"

#include <string.h>

namespace {

// Of the buffer in which copies and built values are put together; a copy of this size or more is not taken.
constexpr DWORD kWorkingSize = 1024;

static_assert(sizeof(StatusRequest) <= kWorkingSize);

struct InitialValue {
    const void* data;
    DWORD size;
};

uint32_t StoredLength(const void* storedValue) {
    uint32_t length;
    memcpy(&length, storedValue, sizeof length);
    return length;
}

// The value that the catalogue, or the printer model, gives the variable.
InitialValue CatalogueValue(const StatusVariableDef& variable) {
    constexpr uint32_t kDefinedVariable = SVF_PRINTER_DEFINED | SVT_VARIABLE;
    InitialValue value = {variable.defaultValue, variable.size};
    if ((variable.flags & kDefinedVariable) == kDefinedVariable)
        value.size = StoredLength(value.data) + static_cast<DWORD>(sizeof(uint32_t));
    return value;
}

// A copy of another size than the type allows would make a variable that its readers cannot read.
bool TakesCopyOf(const StatusVariableDef& variable, DWORD size) {
    if (size == 0 || size >= kWorkingSize) return false;
    switch (TypeOf(variable)) {
    case SVT_VARIABLE:
        return true;
    case SVT_STRING:
        return size <= variable.size;
    default:
        return size == variable.size;
    }
}

// Reads the persistent copy into the working buffer, which is all zero; leaves the value when there is none to be
// taken.
void TakePersistentValue(const char* printerName, const StatusVariableDef& variable, BYTE* working,
                         InitialValue* value) {
    if (!TakesCopyOf(variable, ReadDriverDataValue(printerName, variable, nullptr, 0))) return;
    // Asked again: it may have changed in between.
    DWORD size = ReadDriverDataValue(printerName, variable, working, kWorkingSize);
    if (!TakesCopyOf(variable, size)) return;
    if (TypeOf(variable) == SVT_STRING) {
        // A text keeps the room of its field, whatever length was stored: the service holds a variable to the size that
        // it was created with.
        if (variable.size > kWorkingSize) return;
        working[variable.size - 1] = '\0';
        size = variable.size;
    }
    *value = {working, size};
}

// The value without a persistent copy. A built one is put into the buffer, of kWorkingSize bytes.
InitialValue FirstValue(const StatusVariableDef& variable, BYTE* buffer) {
    InitialValue value = CatalogueValue(variable);
    if (value.size == 0 && variable.buildDefault != nullptr && variable.buildDefault(nullptr) <= kWorkingSize) {
        void* built = buffer;
        value = {buffer, variable.buildDefault(&built)};
    }
    if (value.size == 0) value = {kEmptyVariableValue, sizeof kEmptyVariableValue};
    return value;
}

void CreateIndexedVariable(ManagerRecord* manager, const StatusVariableDef& variable, product::DatabaseType type,
                           BYTE* working) {
    const DatabaseHandle database = manager->printerDatabase.handle;
    BYTE built[kWorkingSize] = {};
    const InitialValue first = FirstValue(variable, built);
    InitialValue value = first;
    if ((variable.flags & SVF_PERSISTENT) != 0) TakePersistentValue(manager->printerName, variable, working, &value);
    // The room that a variable has in composites is that of the value it is created with, which the index knows.
    const bool keepsRoom = value.size == first.size;
    CreateVariable(database, variable.name, type, keepsRoom ? value.size : first.size,
                   keepsRoom ? value.data : first.data);
    if (!keepsRoom) WriteVariable(database, variable.name, value.data, value.size);
    if (value.data == working) memset(working, 0, kWorkingSize); // the next value may be shorter than its field
}

void CreateComposite(ManagerRecord* manager, const StatusVariableDef& variable) {
    CreateVariable(manager->printerDatabase.handle, variable.name, product::kTypeComposite, variable.size, nullptr);
    SetCompositeMembers(manager->printerDatabase.handle, variable.name,
                        static_cast<const char*>(variable.defaultValue));
}

void ResetVariable(ManagerRecord* manager, const StatusVariableDef& variable, const BYTE* data, DWORD size) {
    WriteVariable(manager->printerDatabase, variable.name, data, size);
    if ((variable.flags & SVF_PERSISTENT) == 0) return;
    const DWORD lengthSize = (variable.flags & SVT_VARIABLE) != 0 && size >= sizeof(uint32_t) ? sizeof(uint32_t) : 0;
    WriteDriverDataValue(CurrentPrinterName(manager).text, variable, data + lengthSize, size - lengthSize);
}

} // namespace

Population CreatePrinterVariables(ManagerRecord* manager) {
    const HeapBlock working(kWorkingSize);
    if (working.memory == nullptr) return Population::NoMemory;
    // Nobody else can use the database yet: others wait until its initialisation is ended below.
    for (uint32_t i = 0; i < manager->variableCount; ++i) {
        const StatusVariableDef& variable = *manager->variableIndex[i];
        product::DatabaseType type;
        if (DatabaseTypeOf(variable.flags, &type)) CreateIndexedVariable(manager, variable, type, working.memory);
    }
    // After the plain ones: their members are there by then.
    for (uint32_t i = 0; i < manager->variableCount; ++i)
        if ((manager->variableIndex[i]->flags & SVT_COMPOSITE) != 0)
            CreateComposite(manager, *manager->variableIndex[i]);

    const DatabaseHandle database = manager->printerDatabase.handle;
    CreateVariable(database, kRelayedRegistrationsVariable, product::kTypeVariableLength, sizeof kEmptyVariableValue,
                   kEmptyVariableValue);
    CreateVariable(database, kRelayedRequestVariable, product::kTypeRecord, sizeof(StatusRequest), working.memory);
    CreateVariable(database, kResultsVariable, product::kTypeVariableLength, sizeof kEmptyVariableValue,
                   kEmptyVariableValue);
    return EndDatabaseInitialization(database) == Answer::Done ? Population::Done : Population::NotReady;
}

void ResetPortDependentVariables(ManagerRecord* manager) {
    for (uint32_t i = 0; i < manager->variableCount; ++i) {
        const StatusVariableDef& variable = *manager->variableIndex[i];
        if ((variable.flags & SVF_RESET_ON_PORT_CHANGE) == 0) continue;
        if (variable.buildDefault == nullptr) {
            const InitialValue value = CatalogueValue(variable);
            ResetVariable(manager, variable, static_cast<const BYTE*>(value.data), value.size);
            continue;
        }
        const uint32_t size = variable.buildDefault(nullptr);
        if (size == 0) continue;
        Scratch built(size);
        void* buffer = built.Data();
        if (buffer == nullptr) continue;
        ResetVariable(manager, variable, built.Data(), variable.buildDefault(&buffer));
    }
}

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

// Variables that are made in one call of the service, or in several when they are large; one by one for a service that
// does not know the call.
class VariableBatch {
public:
    explicit VariableBatch(DatabaseHandle database) : m_database(database), m_block(kBatchSize) {}
    ~VariableBatch() { Send(); }
    VariableBatch(const VariableBatch&) = delete;
    VariableBatch& operator=(const VariableBatch&) = delete;

    bool HasMemory() const { return m_block.memory != nullptr; }

    // A composite's value is its list of members.
    void Add(const char* name, product::DatabaseType type, const void* value, DWORD size) {
        const product::NewVariableHead head = {type, static_cast<DWORD>(strlen(name)), size};
        const uint64_t needed = sizeof head + uint64_t{head.nameLength} + size;
        if (m_used + needed > kBatchSize) Send();
        if (needed > kBatchSize) return AddAlone(name, type, value, size);
        Append(&head, sizeof head);
        Append(name, head.nameLength);
        Append(value, size);
        m_used = (m_used + 3) / 4 * 4; // kBatchSize is a multiple of 4
    }

    void Send() {
        if (m_used == 0) return;
        if (CreateVariables(m_database, m_block.memory, m_used) == Answer::NoSuchProcedure) AddOneByOne();
        m_used = 0;
    }

private:
    static constexpr DWORD kBatchSize = 64 * 1024;

    void Append(const void* bytes, DWORD size) {
        memcpy(m_block.memory + m_used, bytes, size);
        m_used += size;
    }

    void AddAlone(const char* name, product::DatabaseType type, const void* value, DWORD size) {
        const bool isComposite = type == product::kTypeComposite;
        CreateVariable(m_database, name, type, isComposite ? 0 : size, isComposite ? nullptr : value);
        if (!isComposite) return;
        const HeapBlock members(SIZE_T{size} + 1);
        if (members.memory == nullptr) return;
        memcpy(members.memory, value, size);
        SetCompositeMembers(m_database, name, reinterpret_cast<const char*>(members.memory));
    }

    void AddOneByOne() {
        for (DWORD at = 0; at < m_used;) {
            product::NewVariableHead head;
            memcpy(&head, m_block.memory + at, sizeof head);
            at += sizeof head;
            char name[product::kVariableNameMax + 1] = {};
            memcpy(name, m_block.memory + at, head.nameLength < sizeof name ? head.nameLength : sizeof name - 1);
            at += head.nameLength;
            AddAlone(name, static_cast<product::DatabaseType>(head.type), m_block.memory + at, head.valueSize);
            at = (at + head.valueSize + 3) / 4 * 4;
        }
    }

    const DatabaseHandle m_database;
    const HeapBlock m_block;
    DWORD m_used = 0;
};

void AddIndexedVariable(ManagerRecord* manager, const StatusVariableDef& variable, product::DatabaseType type,
                        VariableBatch& batch, BYTE* working) {
    BYTE built[kWorkingSize] = {};
    const InitialValue first = FirstValue(variable, built);
    InitialValue value = first;
    if ((variable.flags & SVF_PERSISTENT) != 0) TakePersistentValue(manager->printerName, variable, working, &value);
    // The room that a variable has in composites is that of the value it is created with, which the index knows.
    const InitialValue& fitting = value.size == first.size ? value : first;
    batch.Add(variable.name, type, fitting.data, fitting.size);
    if (value.size != first.size) { // the copy of a value that varies
        batch.Send();
        WriteVariable(manager->printerDatabase.handle, variable.name, value.data, value.size);
    }
    if (value.data == working) memset(working, 0, kWorkingSize); // the next value may be shorter than its field
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
    const DatabaseHandle database = manager->printerDatabase.handle;
    VariableBatch batch(database);
    if (!batch.HasMemory()) return Population::NoMemory;
    // Nobody else can use the database yet: others wait until its initialisation is ended below.
    for (uint32_t i = 0; i < manager->variableCount; ++i) {
        const StatusVariableDef& variable = *manager->variableIndex[i];
        product::DatabaseType type;
        if (DatabaseTypeOf(variable.flags, &type)) AddIndexedVariable(manager, variable, type, batch, working.memory);
    }
    // After the plain ones: their members are there by then.
    for (uint32_t i = 0; i < manager->variableCount; ++i) {
        const StatusVariableDef& variable = *manager->variableIndex[i];
        if ((variable.flags & SVT_COMPOSITE) == 0) continue;
        const char* members = static_cast<const char*>(variable.defaultValue);
        batch.Add(variable.name, product::kTypeComposite, members, static_cast<DWORD>(strlen(members)));
    }
    for (const char* list : {kRelayedRegistrationsVariable, kResultsVariable})
        batch.Add(list, product::kTypeVariableLength, kEmptyVariableValue, sizeof kEmptyVariableValue);
    batch.Add(kRelayedRequestVariable, product::kTypeRecord, working.memory, sizeof(StatusRequest));
    batch.Send();
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

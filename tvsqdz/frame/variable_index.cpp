// The index is built once for each manager, at its open, and is constant from then on: look-ups take no lock.
#include "frame/variable_index.h"

#include "catalogue/status_variable.h"
#include "catalogue/variable_lookup.h"
#include "catalogue/variable_table.h"
#include "frame/guards.h"
#include "frame/heap.h"
#include "frame/printer_registration.h"

#include <stdio.h>
#include <string.h>

namespace {

struct RegisteredVariable {
    uint32_t size;
    uint32_t flags;
};
static_assert(sizeof(RegisteredVariable) == 8);

constexpr DWORD kSmallestValue = sizeof(RegisteredVariable) + 4;
constexpr DWORD kKeyNameSize = 1024;

bool OpenModelVariables(const char* driverName, RegistryKey& variables) {
    char name[kKeyNameSize];
    const int length = snprintf(name, sizeof name, "%s%s\\%s", kModelsKey, driverName, kModelVariablesKey);
    if (length >= static_cast<int>(sizeof name)) return false; // no key has such a name
    return variables.Open(HKEY_LOCAL_MACHINE, name, KEY_READ) == ERROR_SUCCESS;
}

bool HasItsLength(const RegisteredVariable& variable, DWORD valueSize) {
    if (valueSize < kSmallestValue) return false;
    if ((variable.flags & SVT_QUEUE) != 0) return valueSize == kSmallestValue;
    return valueSize - sizeof variable == variable.size;
}

// The initial value in a block of its own, in the form in which the database stores it; null without memory.
void* CopyDefault(const RegisteredVariable& variable, const BYTE* value) {
    if ((variable.flags & SVT_QUEUE) != 0) {
        void* block = AllocateZeroed(sizeof kEmptyVariableValue);
        if (block != nullptr) memcpy(block, kEmptyVariableValue, sizeof kEmptyVariableValue);
        return block;
    }
    const bool lengthFirst = (variable.flags & SVT_VARIABLE) != 0;
    const SIZE_T offset = lengthFirst ? sizeof variable.size : 0;
    // One byte more, zero: a member list or a text need not bring its own NUL.
    BYTE* block = static_cast<BYTE*>(AllocateZeroed(offset + variable.size + 1));
    if (block == nullptr) return nullptr;
    if (lengthFirst) memcpy(block, &variable.size, sizeof variable.size);
    memcpy(block + offset, value, variable.size);
    return block;
}

bool FillRow(StatusVariableDef* row, const char* name, const BYTE* data) {
    RegisteredVariable variable;
    memcpy(&variable, data, sizeof variable);
    row->name = CopyText(name);
    row->defaultValue = CopyDefault(variable, data + sizeof variable);
    row->size = variable.size;
    row->flags = variable.flags | SVF_PRINTER_DEFINED;
    return row->name != nullptr && row->defaultValue != nullptr;
}

// Fills the rows in the order of the key; false without memory. A row that is filled in part is freed with the manager.
bool ReadRows(HKEY key, DWORD valueCount, DWORD longestData, StatusVariableDef* rows, uint32_t* rowCount) {
    const HeapBlock data(SIZE_T{longestData} + 1);
    if (data.memory == nullptr) return false;
    for (DWORD i = 0; i < valueCount; ++i) {
        char name[kVariableNameSize];
        DWORD nameSize = sizeof name;
        DWORD size = longestData;
        // A longer name, or data that grew meanwhile, is skipped like a value of the wrong length.
        if (RegEnumValueA(key, i, name, &nameSize, nullptr, nullptr, data.memory, &size) != ERROR_SUCCESS) continue;
        RegisteredVariable variable = {};
        if (size >= sizeof variable) memcpy(&variable, data.memory, sizeof variable);
        if (nameSize == 0 || !HasItsLength(variable, size)) continue;
        if (!FillRow(&rows[(*rowCount)++], name, data.memory)) return false;
    }
    return true;
}

// By exchange: the order is the platform's, which for hostile names need not be one, and this ends whatever it answers.
void SortByName(StatusVariableDef* rows, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        for (uint32_t j = i + 1; j < count; ++j) {
            if (lstrcmpA(rows[i].name, rows[j].name) <= 0) continue;
            const StatusVariableDef earlier = rows[j];
            rows[j] = rows[i];
            rows[i] = earlier;
        }
}

// The model's own rows, sorted, in extraVariables; none when the printer has no model or the key cannot be read. False
// without memory.
bool ReadModelVariables(ManagerRecord* manager, uint32_t* rowCount) {
    *rowCount = 0;
    RegistryKey key;
    if (!OpenModelVariables(manager->driverName, key)) return true;
    DWORD valueCount = 0;
    DWORD longestData = 0;
    if (RegQueryInfoKeyA(key.key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &valueCount, nullptr,
                         &longestData, nullptr, nullptr) != ERROR_SUCCESS ||
        valueCount == 0)
        return true;
    // Room for a row that ends the array, and an even number of rows.
    const SIZE_T room = (SIZE_T{valueCount} + 2) & ~SIZE_T{1};
    manager->extraVariables = static_cast<StatusVariableDef*>(AllocateZeroed(room * sizeof(StatusVariableDef)));
    if (manager->extraVariables == nullptr) return false;
    if (!ReadRows(key.key, valueCount, longestData, manager->extraVariables, rowCount)) return false;
    SortByName(manager->extraVariables, *rowCount);
    return true;
}

void Merge(ManagerRecord* manager, uint32_t rowCount) {
    const StatusVariableDef** next = manager->variableIndex;
    const StatusVariableDef* builtIn = kStatusVariables;
    const StatusVariableDef* const builtInEnd = builtIn + g_variableCount;
    StatusVariableDef* defined = manager->extraVariables;
    StatusVariableDef* const definedEnd = defined + rowCount;
    while (builtIn != builtInEnd && defined != definedEnd) {
        const int order = lstrcmpA(builtIn->name, defined->name);
        if (order < 0) {
            *next++ = builtIn++;
            continue;
        }
        // The printer's row takes the place of the built-in one and keeps its time-out, which a model does not state.
        if (order == 0) defined->timeoutMs = builtIn++->timeoutMs;
        *next++ = defined++;
    }
    while (builtIn != builtInEnd)
        *next++ = builtIn++;
    while (defined != definedEnd)
        *next++ = defined++;
    manager->variableCount = static_cast<uint32_t>(next - manager->variableIndex);
}

} // namespace

bool BuildVariableIndex(ManagerRecord* manager) {
    if (!LookUpDriverName(manager)) return false;
    uint32_t rowCount = 0;
    if (!ReadModelVariables(manager, &rowCount)) return false;
    const SIZE_T room = SIZE_T{g_variableCount} + rowCount + 1;
    manager->variableIndex =
        static_cast<const StatusVariableDef**>(AllocateZeroed(room * sizeof *manager->variableIndex));
    if (manager->variableIndex == nullptr) return false;
    Merge(manager, rowCount);
    // Composites of the printer model; the built-in ones are as large as they are declared.
    for (StatusVariableDef* row = manager->extraVariables; rowCount > 0; ++row, --rowCount)
        if ((row->flags & SVT_COMPOSITE) != 0)
            row->size = CompositeSize(manager, static_cast<const char*>(row->defaultValue));
    return true;
}

void FreeVariables(ManagerRecord* manager) {
    FreeBlock(manager->variableIndex);
    if (manager->extraVariables == nullptr) return;
    // Flags end the array: a row that could not be filled whole has them too.
    for (StatusVariableDef* row = manager->extraVariables; row->flags != 0; ++row) {
        FreeBlock(const_cast<char*>(row->name));
        FreeBlock(const_cast<void*>(row->defaultValue));
    }
    FreeBlock(manager->extraVariables);
}

uint32_t CompositeSize(const ManagerRecord* manager, const char* members) {
    const OwnedText copy(CopyText(members));
    if (copy.text == nullptr) return 0;
    uint64_t sum = 0;
    for (char* name = copy.text; *name != '\0';) {
        char* end = name + strcspn(name, ";");
        char* next = *end == ';' ? end + 1 : end;
        *end = '\0';
        if (end != name) {
            const StatusVariableDef* member = FindStatusVariable(manager, name);
            if (member == nullptr) return 0;
            sum += member->size;
        }
        name = next;
    }
    return sum <= 0xFFFFFFFF ? static_cast<uint32_t>(sum) : 0;
}

// The index is built once for each manager, at its open, and is constant from then on: look-ups take no lock.
#include "manager/variable_index.h"

#include "base/memory.h"
#include "manager/printer_registration.h"
#include "manager/variables.h"
#include "product/guards.h"
#include "product/model_variables.h"

#include <algorithm>
#include <optional>
#include <string.h>

namespace {

// The initial value in a block of its own, in the form in which the database stores it; null without memory.
void* CopyDefault(const product::ModelVariable& variable) {
    if (variable.initial == nullptr) {
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
    memcpy(block + offset, variable.initial, variable.size);
    return block;
}

bool FillRow(StatusVariableDef* row, const char* name, const product::ModelVariable& variable) {
    row->name = CopyText(name);
    row->defaultValue = CopyDefault(variable);
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
        product::ModelVariable variable;
        if (!product::ReadModelVariable({name, nameSize}, data.memory, size, &variable)) continue;
        if (!FillRow(&rows[(*rowCount)++], name, variable)) return false;
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

SIZE_T CountBuiltInComposites() {
    return static_cast<SIZE_T>(std::count_if(kStatusVariables, kStatusVariables + g_variableCount,
                                             [](const auto& row) { return (row.flags & SVT_COMPOSITE) != 0; }));
}

// The model's own rows, sorted, in extraVariables; none when the printer has no model or the key cannot be read. False
// without memory.
bool ReadModelVariables(ManagerRecord* manager, uint32_t* rowCount) {
    *rowCount = 0;
    const RegistryKey key = product::OpenModelVariables(manager->driverName);
    if (!key) return true;
    DWORD valueCount = 0;
    DWORD longestData = 0;
    if (RegQueryInfoKeyA(key.Get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &valueCount, nullptr,
                         &longestData, nullptr, nullptr) != ERROR_SUCCESS ||
        valueCount == 0)
        return true;
    // Also for the built-in composites, and for a row that ends the array.
    const SIZE_T room = SIZE_T{valueCount} + CountBuiltInComposites() + 1;
    manager->extraVariables = static_cast<StatusVariableDef*>(AllocateZeroed(room * sizeof(StatusVariableDef)));
    if (manager->extraVariables == nullptr) return false;
    if (!ReadRows(key.Get(), valueCount, longestData, manager->extraVariables, rowCount)) return false;
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

// The room of this printer's variable of that name.
std::optional<uint32_t> RoomInIndex(const ManagerRecord* manager, const char* name) {
    const StatusVariableDef* variable = FindStatusVariable(manager, name);
    if (variable == nullptr) return std::nullopt;
    if (TypeOf(*variable) != SVT_VARIABLE) return variable->size;
    uint32_t length = 0;
    if (variable->buildDefault != nullptr)
        return variable->buildDefault(nullptr) - static_cast<uint32_t>(sizeof length);
    const auto* stored = static_cast<const BYTE*>(variable->defaultValue);
    memcpy(&length, stored, sizeof length);
    return product::PayloadRoom(stored + sizeof length, length);
}

// A built-in composite of which the model replaced a member has a row of its own, `spare` being those behind the
// model's. Its handlers know the layout as it is declared, and are gone with it. False without memory.
bool FitBuiltInComposites(ManagerRecord* manager, StatusVariableDef* spare) {
    for (uint32_t i = 0; i < manager->variableCount; ++i) {
        const StatusVariableDef& row = *manager->variableIndex[i];
        if ((row.flags & (SVT_COMPOSITE | SVF_PRINTER_DEFINED)) != SVT_COMPOSITE) continue;
        const uint32_t size =
            product::BuiltInCompositeSize(static_cast<const char*>(row.defaultValue), row.size,
                                          [manager](const char* name) { return RoomInIndex(manager, name); });
        if (size == row.size) continue;
        *spare = {.flags = row.flags,
                  .size = size,
                  .timeoutMs = row.timeoutMs,
                  .defaultValue = CopyText(static_cast<const char*>(row.defaultValue)),
                  .watchThreadProc = row.watchThreadProc,
                  .callbackThreadProc = row.callbackThreadProc,
                  .name = CopyText(row.name)};
        if (spare->name == nullptr || spare->defaultValue == nullptr) return false;
        manager->variableIndex[i] = spare++;
    }
    return true;
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
    if (rowCount == 0) return true;
    if (!FitBuiltInComposites(manager, manager->extraVariables + rowCount)) return false;
    // Those of the printer model, which may have built-in ones among their members.
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
    return product::ModelCompositeSize(members, [manager](const char* name) { return RoomInIndex(manager, name); });
}

// A binary search over the manager's index, which nothing changes once the manager is open: no lock is needed.

const StatusVariableDef* FindStatusVariable(const ManagerRecord* manager, const char* name) {
    int32_t low = 0;
    int32_t high = static_cast<int32_t>(manager->variableCount) - 1;
    while (low <= high) {
        const int32_t middle = low + (high - low) / 2;
        const StatusVariableDef* variable = manager->variableIndex[middle];
        const int order = lstrcmpA(name, variable->name);
        if (order == 0) return variable;
        if (order < 0)
            high = middle - 1;
        else
            low = middle + 1;
    }
    return nullptr;
}

namespace {

Status FindNamed(const ManagerRecord* manager, CallerText read, const char* name, const StatusVariableDef** variable) {
    if (read == CallerText::Fault) return TVS_E_FAULT;
    *variable = read == CallerText::Read ? FindStatusVariable(manager, name) : nullptr;
    return *variable != nullptr ? TVS_OK : TVS_E_UNKNOWN;
}

} // namespace

Status FindCallersVariable(const ManagerRecord* manager, const char* callersName, const StatusVariableDef** variable) {
    char name[kVariableNameSize];
    const CallerText read = ReadCallerText(name, kVariableNameSize, callersName);
    return FindNamed(manager, read, name, variable);
}

Status FindCallersVariable(const ManagerRecord* manager, const WCHAR* callersName, const StatusVariableDef** variable) {
    char name[kWideVariableNameSize];
    const CallerText read = ReadCallerName(name, callersName);
    return FindNamed(manager, read, name, variable);
}

bool DatabaseTypeOf(uint32_t flags, product::DatabaseType* type) {
    switch (flags & SVT_MASK) {
    case SVT_BYTE:
        *type = product::kTypeByte;
        return true;
    case SVT_WORD:
        *type = product::kTypeWord;
        return true;
    case SVT_NUMBER:
        *type = product::kTypeNumber;
        return true;
    case SVT_STRING:
        *type = product::kTypeString;
        return true;
    case SVT_RECORD:
        *type = product::kTypeRecord;
        return true;
    case SVT_VARIABLE:
        *type = product::kTypeVariableLength;
        return true;
    default:
        return false;
    }
}

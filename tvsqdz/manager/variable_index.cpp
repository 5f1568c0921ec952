// The index is built once for each manager, at its open, and is constant from then on: look-ups take no lock.
#include "manager/variable_index.h"

#include "base/memory.h"
#include "manager/printer_registration.h"
#include "manager/variables.h"
#include "product/guards.h"

#include <algorithm>
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

SIZE_T CountBuiltInComposites() {
    return static_cast<SIZE_T>(std::count_if(kStatusVariables, kStatusVariables + g_variableCount,
                                             [](const auto& row) { return (row.flags & SVT_COMPOSITE) != 0; }));
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
    // Also for the built-in composites, and for a row that ends the array.
    const SIZE_T room = SIZE_T{valueCount} + CountBuiltInComposites() + 1;
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

// The bytes that the variable takes in a composite: the service composes the members' values in the room that they were
// created with. Of a variable-length one that is its first payload, and none for the empty value.
uint32_t RoomOf(const StatusVariableDef& variable) {
    if (TypeOf(variable) != SVT_VARIABLE) return variable.size;
    uint32_t length = 0;
    if (variable.size == 0 && variable.buildDefault != nullptr) {
        length = variable.buildDefault(nullptr) - static_cast<uint32_t>(sizeof length);
    } else if (memcmp(variable.defaultValue, kEmptyVariableValue, sizeof kEmptyVariableValue) != 0) {
        memcpy(&length, variable.defaultValue, sizeof length);
    }
    return length;
}

template <typename SizeOf>
uint64_t SumOfMembers(const char* members, SizeOf sizeOf) {
    uint64_t sum = 0;
    while (*members != '\0') {
        const size_t length = strcspn(members, ";");
        char name[kVariableNameSize] = {}; // no variable has a longer one; cut, it is not found either
        memcpy(name, members, length < sizeof name ? length : 0);
        if (length > 0) sum += sizeOf(static_cast<const char*>(name));
        members += length;
        if (*members == ';') ++members;
    }
    return sum;
}

uint32_t BuiltInSize(const char* name) {
    const StatusVariableDef* end = kStatusVariables + g_variableCount;
    const auto* row =
        std::find_if(kStatusVariables, end, [&](const auto& each) { return strcmp(each.name, name) == 0; });
    return row != end ? row->size : 0;
}

// What the members take that this printer has; one that it lacks keeps its share of the declared size.
uint32_t BuiltInCompositeSize(const ManagerRecord* manager, const StatusVariableDef& composite) {
    const char* members = static_cast<const char*>(composite.defaultValue);
    const uint32_t absent = composite.size - static_cast<uint32_t>(SumOfMembers(members, BuiltInSize));
    const uint64_t sum = SumOfMembers(members, [&](const char* name) {
        const StatusVariableDef* member = FindStatusVariable(manager, name);
        return member != nullptr ? RoomOf(*member) : absent;
    });
    return sum <= 0xFFFFFFFF ? static_cast<uint32_t>(sum) : 0;
}

// A built-in composite of which the model replaced a member has a row of its own, `spare` being those behind the
// model's. Its handlers know the layout as it is declared, and are gone with it. False without memory.
bool FitBuiltInComposites(ManagerRecord* manager, StatusVariableDef* spare) {
    for (uint32_t i = 0; i < manager->variableCount; ++i) {
        const StatusVariableDef& row = *manager->variableIndex[i];
        if ((row.flags & (SVT_COMPOSITE | SVF_PRINTER_DEFINED)) != SVT_COMPOSITE) continue;
        const uint32_t size = BuiltInCompositeSize(manager, row);
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
    bool known = true;
    const uint64_t sum = SumOfMembers(members, [&](const char* name) -> uint32_t {
        const StatusVariableDef* member = FindStatusVariable(manager, name);
        known = known && member != nullptr;
        return member != nullptr ? RoomOf(*member) : 0;
    });
    return known && sum <= 0xFFFFFFFF ? static_cast<uint32_t>(sum) : 0;
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

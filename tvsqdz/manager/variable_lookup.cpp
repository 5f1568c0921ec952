// A binary search over the manager's index, which nothing changes once the manager is open: no lock is needed.
#include "manager/variable_lookup.h"

#include "base/caller_memory.h"

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

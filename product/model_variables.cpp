// The parser of a model's registry values, and the room of variables in composites. No state.
#include "product/model_variables.h"

#include "product/registry_names.h"

#include <stdio.h>

namespace product {

namespace {

struct RegisteredVariable {
    uint32_t size;
    uint32_t flags;
};
static_assert(sizeof(RegisteredVariable) == 8 && offsetof(RegisteredVariable, flags) == 4);

// Also the length of a queue's value.
constexpr SIZE_T kSmallestValue = sizeof(RegisteredVariable) + 4;

constexpr size_t kKeyNameSize = 1024;

} // namespace

RegistryKey OpenModelVariables(const char* driver) {
    char name[kKeyNameSize];
    const int length = snprintf(name, sizeof name, "%s\\%s\\%s", kModelsKey, driver, kModelVariablesKey);
    if (driver[0] == '\0' || length >= static_cast<int>(sizeof name)) return {}; // no key has such a name
    return OpenKey(HKEY_LOCAL_MACHINE, name, KEY_READ);
}

bool ReadModelVariable(std::string_view name, const BYTE* data, SIZE_T dataSize, ModelVariable* variable) {
    if (name.empty() || name.size() > kVariableNameMax || dataSize < kSmallestValue) return false;
    RegisteredVariable registered;
    memcpy(&registered, data, sizeof registered);
    const bool queue = (registered.flags & SVT_QUEUE) != 0;
    if (queue ? dataSize != kSmallestValue : dataSize - sizeof registered != registered.size) return false;
    *variable = {registered.size, registered.flags, queue ? nullptr : data + sizeof registered};
    return true;
}

uint32_t PayloadRoom(const void* payload, uint32_t size) {
    constexpr uint32_t kEmptyPayload = kEmptyVariableValue[1];
    const bool empty = size == sizeof kEmptyPayload && memcmp(payload, &kEmptyPayload, sizeof kEmptyPayload) == 0;
    return empty ? 0 : size;
}

uint32_t RoomOf(const BuiltInVariable& variable) {
    if (variable.initialSize != 0) return variable.initialSize - static_cast<uint32_t>(sizeof(uint32_t));
    return variable.size; // 0 where it varies: its initial value is the empty one
}

uint32_t AbsentShare(const char* members, uint32_t declaredSize) {
    uint32_t share = declaredSize;
    ForEachMember(members, [&](const char* name) {
        const BuiltInVariable* member = FindBuiltInVariable(name);
        share -= member != nullptr ? member->size : 0;
    });
    return share;
}

} // namespace product

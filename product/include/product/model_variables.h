// What a printer model says of its variables in the registry, and how many bytes a variable takes in a composite. No
// state; any thread.
//
// A model's key "Status Variables" has a value for each variable that the model adds or replaces, of the variable's
// name and any registry type:
//
//    0  u32  size: of the variable's value in bytes; of a queue, of one item
//    4  u32  flags (product/variable_types.h)
//    8       the initial value, `size` bytes; of a queue, 4 bytes that do not count. Of an SVT_VARIABLE the payload; of
//            an SVT_COMPOSITE the members' names, each followed by ";"
#pragma once

#include "product/guards.h"
#include "product/interface.h"
#include "product/variables.h"

#include <windows.h>

#include <optional>
#include <string.h>
#include <string_view>

namespace product {

struct ModelVariable {
    uint32_t size = 0;
    uint32_t flags = 0;
    const BYTE* initial = nullptr; // into the data, `size` bytes; null for a queue, which begins empty
};

// The key of the variables of a driver's model, for KEY_READ. None when the driver is empty or not a registered model.
RegistryKey OpenModelVariables(const char* driver);

// False for a value that every program skips: its length does not agree with its size, or its name is empty or longer
// than the service takes. dataSize: bytes of the data.
bool ReadModelVariable(std::string_view name, const BYTE* data, SIZE_T dataSize, ModelVariable* variable);

// The bytes that a variable takes in a composite: the service keeps the room that the members were created with.

// Of a variable-length one, that is its first payload, and none for the empty value.
uint32_t PayloadRoom(const void* payload, uint32_t size);
uint32_t RoomOf(const BuiltInVariable& variable);

// Calls visit(const char* name) for each member. Empty names are skipped; one longer than any variable's is empty, and
// so belongs to no variable.
template <typename Visit>
void ForEachMember(const char* members, Visit visit) {
    while (*members != '\0') {
        const size_t length = strcspn(members, ";");
        char name[kVariableNameMax + 1] = {};
        memcpy(name, members, length < sizeof name ? length : 0);
        if (length > 0) visit(static_cast<const char*>(name));
        members += length;
        if (*members == ';') ++members;
    }
}

// The size of a model's composite: what its members take; 0 when the printer lacks one of them. roomOf(const char*
// name) gives the room of a variable of this printer as std::optional<uint32_t>.
template <typename RoomOfName>
uint32_t ModelCompositeSize(const char* members, RoomOfName roomOf) {
    bool known = true;
    uint64_t sum = 0;
    ForEachMember(members, [&](const char* name) {
        const std::optional<uint32_t> room = roomOf(name);
        known = known && room.has_value();
        sum += room.value_or(0);
    });
    return known && sum <= 0xFFFFFFFF ? static_cast<uint32_t>(sum) : 0;
}

// The part of a built-in composite's declared size that belongs to members that no built-in variable has.
uint32_t AbsentShare(const char* members, uint32_t declaredSize);

// The size of a built-in composite for a printer whose model may have replaced members. A member that the printer lacks
// keeps its share of the declared size.
template <typename RoomOfName>
uint32_t BuiltInCompositeSize(const char* members, uint32_t declaredSize, RoomOfName roomOf) {
    const uint32_t absent = AbsentShare(members, declaredSize);
    return ModelCompositeSize(members,
                              [&](const char* name) { return std::optional<uint32_t>(roomOf(name).value_or(absent)); });
}

} // namespace product

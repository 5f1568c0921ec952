// Variables of catalogue.h. No state.
#include "catalogue.h"

#include "printers.h"
#include "registry.h"

#include <tvsqdz_variables.h>

#include <algorithm>
#include <cstring>

namespace {

// A variable that a model defines: a registry value that bears its name and holds two little-endian words, size and
// flags, and then the initial value: size bytes, or 4 for a queue.
constexpr size_t kSizeAt = 0;
constexpr size_t kFlagsAt = 4;
constexpr size_t kDefaultAt = 8;
constexpr size_t kQueueValueSize = 12;
constexpr uint32_t kTypeMask = 0x300000ff;
constexpr uint32_t kReadable = 0x00010000;

struct TypeRow {
    VariableType type;
    uint32_t code;
    const char* name;
};
constexpr TypeRow kTypes[] = {
    {VariableType::Byte, 0x01, "byte"},           {VariableType::Word, 0x02, "word"},
    {VariableType::Number, 0x04, "number"},       {VariableType::String, 0x08, "string"},
    {VariableType::Variable, 0x10, "variable"},   {VariableType::Record, 0x20, "record"},
    {VariableType::Composite, 0x40, "composite"}, {VariableType::Queue, 0x80, "queue"},
};

struct BuiltIn {
    const char* name;
    VariableType type;
    uint32_t size;
};
namespace row { // the public list names its types in capitals
constexpr VariableType NUMBER = VariableType::Number, STRING = VariableType::String, RECORD = VariableType::Record,
                       VARIABLE = VariableType::Variable, COMPOSITE = VariableType::Composite;
}
#define BUILT_IN_ROW(name, type, size) {#name, row::type, size},
constexpr BuiltIn kBuiltIn[] = {TVS_BUILT_IN_VARIABLES(BUILT_IN_ROW)};
#undef BUILT_IN_ROW

// Of varying size, but with a first value of this many bytes, for which composites have room.
struct BuiltRoom {
    const char* name;
    uint32_t room;
};
constexpr BuiltRoom kBuiltRooms[] = {{"PrinterBinConfig", 64}, {"PrinterFontInfo", 8}, {"PrinterOptConfig", 12}};

// What the built-in composites are made of; a member that the printer does not have contributes nothing.
struct Composition {
    const char* name;
    const char* members;
};
constexpr Composition kCompositions[] = {
    {"CurrentStatus", "PrinterStatus;SpoolerStatus;ClientStatus;JobStatus;"},
    {"ErrNoPaper2", "ErrNoPaper;ErrPaperState;"},
    {"PortEx", "PrinterExtStatus;Port;"},
    {"PrinterStatusEx", "PrinterStatus;ErrPaperJam;ErrPaperSizeError;ErrFormRegistError;ErrNoPaper;ErrNSMError;"},
    {"PrintingJobInfo2", "PrintingJobInfo;CoverageInfo;"},
};

std::vector<std::string> SplitMembers(const std::string& list) {
    std::vector<std::string> members;
    for (size_t at = 0; at < list.size();) {
        const size_t end = std::min(list.find(';', at), list.size());
        if (end > at) members.push_back(list.substr(at, end - at));
        at = end + 1;
    }
    return members;
}

uint32_t WordAt(const Bytes& bytes, size_t offset) {
    uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

// False for a value that the library passes over too, since its length does not agree with its size.
bool ReadModelVariable(const RegistryValue& value, Variable& variable) {
    if (value.data.size() < kQueueValueSize) return false;
    const uint32_t size = WordAt(value.data, kSizeAt);
    const uint32_t flags = WordAt(value.data, kFlagsAt);
    const auto type = std::find_if(std::begin(kTypes), std::end(kTypes),
                                   [&](const TypeRow& candidate) { return candidate.code == (flags & kTypeMask); });
    variable = {
        .name = value.name, .size = size, .room = size, .readable = (flags & kReadable) != 0, .fromModel = true};
    if (type != std::end(kTypes)) variable.type = type->type;
    if (variable.type == VariableType::Queue) return value.data.size() == kQueueValueSize;
    if (value.data.size() - kDefaultAt != size) return false;
    if (variable.type == VariableType::Variable) {
        variable.size = 0;
        // The empty value, a payload of one word that is 0, takes no room.
        if (size == sizeof(uint32_t) && WordAt(value.data, kDefaultAt) == 0) variable.room = 0;
    }
    if (variable.type == VariableType::Composite) {
        const std::string list(value.data.begin() + kDefaultAt, value.data.end());
        variable.members = SplitMembers(list.substr(0, list.find('\0')));
    }
    return true;
}

// A model's composite has no size when a member is absent; of a built-in one the member keeps its share.
uint32_t CompositeSize(const std::vector<Variable>& variables, const Variable& composite) {
    uint32_t absent = composite.size;
    for (const BuiltIn& row : kBuiltIn)
        absent -= row.size * static_cast<uint32_t>(std::ranges::count(composite.members, row.name));
    uint32_t size = 0;
    for (const std::string& member : composite.members) {
        const Variable* found = FindVariable(variables, member);
        if (!found && composite.fromModel) return 0;
        size += found ? found->room : absent;
    }
    return size;
}

} // namespace

const char* TypeName(VariableType type) {
    for (const TypeRow& row : kTypes)
        if (row.type == type) return row.name;
    return "unknown";
}

std::vector<Variable> PrinterVariables(const std::string& driver) {
    std::vector<Variable> variables;
    for (const BuiltIn& row : kBuiltIn) {
        Variable variable{.name = row.name, .type = row.type, .size = row.size, .room = row.size};
        for (const BuiltRoom& built : kBuiltRooms)
            if (variable.name == built.name) variable.room = built.room;
        for (const Composition& composition : kCompositions)
            if (variable.name == composition.name) variable.members = SplitMembers(composition.members);
        variable.readable = variable.name != "AccessControlList";
        variables.push_back(std::move(variable));
    }
    if (driver.empty()) return variables;

    if (const RegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, ModelVariablesPath(driver), KEY_QUERY_VALUE)) {
        for (const RegistryValue& value : ListValues(key.Get())) {
            Variable variable;
            if (!ReadModelVariable(value, variable)) continue;
            std::erase_if(variables, [&](const Variable& present) { return present.name == variable.name; });
            variables.push_back(std::move(variable));
        }
    }
    std::sort(variables.begin(), variables.end(),
              [](const Variable& a, const Variable& b) { return lstrcmpA(a.name.c_str(), b.name.c_str()) < 0; });
    // The model's own may have built-in ones among their members.
    for (const bool fromModel : {false, true})
        for (Variable& variable : variables)
            if (variable.fromModel == fromModel && variable.type == VariableType::Composite)
                variable.room = variable.size = CompositeSize(variables, variable);
    return variables;
}

const Variable* FindVariable(const std::vector<Variable>& variables, const std::string& name) {
    const auto found = std::find_if(variables.begin(), variables.end(),
                                    [&](const Variable& variable) { return variable.name == name; });
    return found == variables.end() ? nullptr : &*found;
}

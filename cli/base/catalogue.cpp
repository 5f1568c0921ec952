// Variables of catalogue.h. No state.
#include "base/catalogue.h"

#include "base/registry.h"

#include "product/model_variables.h"
#include "product/variables.h"

#include <algorithm>
#include <optional>

namespace {

Variable Described(const BuiltInVariable& row) {
    Variable variable{.name = row.name,
                      .type = TypeOf(row),
                      .size = row.size,
                      .room = product::RoomOf(row),
                      .readable = (row.flags & SVF_READABLE) != 0};
    if (row.members != nullptr) variable.memberList = row.members;
    return variable;
}

Variable Described(const std::string& name, const product::ModelVariable& row) {
    const bool varies = (row.flags & SVT_MASK) == SVT_VARIABLE;
    Variable variable{.name = name,
                      .type = row.flags & SVT_MASK,
                      .size = varies ? 0 : row.size,
                      .room = varies ? product::PayloadRoom(row.initial, row.size) : row.size,
                      .readable = (row.flags & SVF_READABLE) != 0,
                      .fromModel = true};
    if (variable.type == SVT_COMPOSITE) {
        const std::string list(row.initial, row.initial + row.size);
        variable.memberList = list.substr(0, list.find('\0'));
    }
    return variable;
}

void FitComposite(const std::vector<Variable>& variables, Variable& composite) {
    const auto roomOf = [&](const char* name) -> std::optional<uint32_t> {
        const Variable* member = FindVariable(variables, name);
        return member ? std::optional(member->room) : std::nullopt;
    };
    const char* members = composite.memberList.c_str();
    composite.room = composite.size = composite.fromModel
                                          ? product::ModelCompositeSize(members, roomOf)
                                          : product::BuiltInCompositeSize(members, composite.size, roomOf);
    product::ForEachMember(members, [&](const char* name) { composite.members.emplace_back(name); });
}

} // namespace

const char* TypeName(uint32_t type) {
    switch (type) {
    case SVT_BYTE:
        return "byte";
    case SVT_WORD:
        return "word";
    case SVT_NUMBER:
        return "number";
    case SVT_STRING:
        return "string";
    case SVT_VARIABLE:
        return "variable";
    case SVT_RECORD:
        return "record";
    case SVT_COMPOSITE:
        return "composite";
    case SVT_QUEUE:
        return "queue";
    default:
        return "unknown";
    }
}

std::vector<Variable> PrinterVariables(const std::string& driver) {
    std::vector<Variable> variables;
    for (const BuiltInVariable& row : kBuiltInVariables)
        variables.push_back(Described(row));
    if (const RegistryKey key = product::OpenModelVariables(driver.c_str())) {
        for (const RegistryValue& value : ListValues(key.Get())) {
            product::ModelVariable row;
            if (!product::ReadModelVariable(value.name, value.data.data(), value.data.size(), &row)) continue;
            std::erase_if(variables, [&](const Variable& present) { return present.name == value.name; });
            variables.push_back(Described(value.name, row));
        }
    }
    std::sort(variables.begin(), variables.end(),
              [](const Variable& a, const Variable& b) { return lstrcmpA(a.name.c_str(), b.name.c_str()) < 0; });
    // The model's own may have built-in ones among their members.
    for (const bool fromModel : {false, true})
        for (Variable& variable : variables)
            if (variable.fromModel == fromModel && variable.type == SVT_COMPOSITE) FitComposite(variables, variable);
    return variables;
}

const Variable* FindVariable(const std::vector<Variable>& variables, const std::string& name) {
    const auto found = std::find_if(variables.begin(), variables.end(),
                                    [&](const Variable& variable) { return variable.name == name; });
    return found == variables.end() ? nullptr : &*found;
}

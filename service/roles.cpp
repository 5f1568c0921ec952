#include "roles.h"

#include "product/interface.h"
#include "product/printer_list.h"
#include "product/variable_names.h"

using namespace product;

namespace {

struct RoleRow {
    std::string_view variable;
    VariableRole role;
};

constexpr RoleRow kOfPrinters[] = {
    {kForwardMailbox, VariableRole::Mailbox},
    {kForwardAnswer, VariableRole::Answer},
    {names::kAccessControlList, VariableRole::AccessList},
    {names::kPort, VariableRole::Setting},
    {names::kPrinterName, VariableRole::PrinterName},
    {names::kReadRequest, VariableRole::Request},
    {names::kWriteRequest, VariableRole::Request},
    {names::kTerminateManager, VariableRole::Termination},
};

} // namespace

VariableRole RoleOf(std::string_view database, std::string_view variable) {
    if (database == kMasterDatabase)
        return variable == kPrinterListVariable ? VariableRole::PrinterList : VariableRole::None;
    for (const RoleRow& row : kOfPrinters)
        if (row.variable == variable) return row.role;
    return VariableRole::None;
}

VariableRole RoleOfCompanion(VariableRole role) {
    switch (role) {
    case VariableRole::None:
    case VariableRole::Request:
    case VariableRole::Termination:
        return VariableRole::None;
    default:
        return VariableRole::Setting;
    }
}

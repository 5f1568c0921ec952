#include "writing.h"

#include "clients.h"
#include "composite.h"
#include "printers.h"
#include "signals.h"

#include <algorithm>
#include <string.h>

using namespace product;

namespace {

// Whoever opens a printer first fills its database and writes its name; the printer list has it already.
bool IsListedName(const Database& database, const BYTE* bytes, DWORD size) {
    const auto* text = reinterpret_cast<const char*>(bytes);
    const std::string_view name{text, strnlen(text, size)};
    return !name.empty() && IsListed(database.name, name);
}

ServiceStatus Store(Database& database, const Caller& caller, Variable& variable, const BYTE* bytes, DWORD size) {
    Account& account = *caller.group.account;
    if (variable.role == VariableRole::PrinterList) return WritePrinterList(database, variable, caller, bytes, size);
    bool changed = false;
    const ServiceStatus status = variable.role == VariableRole::AccessList
                                     ? WriteAccessList(database, variable, account, bytes, size, &changed)
                                     : WriteValue(variable, database.arena, account, bytes, size, &changed);
    if (status == kDone) SignalWritten(database, Written{&variable, changed});
    return status;
}

} // namespace

ServiceStatus CheckWrite(const Caller& caller, const Database& database, const Variable& variable, const BYTE* bytes,
                         DWORD size) {
    switch (variable.role) {
    case VariableRole::Mailbox:
        return kNotWritable;
    case VariableRole::PrinterName:
        if (IsListedName(database, bytes, size)) return kDone;
        [[fallthrough]];
    case VariableRole::Answer:
    case VariableRole::Setting:
    case VariableRole::AccessList:
        return IsAdministrator(caller) ? kDone : kAccessDenied;
    case VariableRole::None:
    case VariableRole::PrinterList:
    case VariableRole::Request:
    case VariableRole::Termination:
        break;
    }
    return kDone;
}

void FollowWrite(const Caller& caller, Database& database, const Variable& variable, const BYTE* bytes, DWORD size) {
    switch (variable.role) {
    case VariableRole::Answer:
        TakeAnswer(database, bytes, size);
        break;
    case VariableRole::Request:
        AnswerUnserved(database);
        break;
    case VariableRole::Termination:
        if (std::any_of(bytes, bytes + size, [](BYTE byte) { return byte != 0; }) && IsAdministrator(caller))
            EndPrinterSides();
        break;
    default:
        break;
    }
}

ServiceStatus WriteVariable(Database& database, const Caller& caller, std::string_view name, const BYTE* bytes,
                            DWORD size) {
    Variable* variable = FindVariable(database, name);
    if (!variable) {
        const ServiceStatus status = WriteNewCompanion(database, caller, name, bytes, size);
        if (status != kVariableExists) return status;
        variable = FindVariable(database, name); // made by another call meanwhile
    }
    if (variable->type == kTypeComposite) return WriteComposite(database, caller, *variable, bytes, size);
    ServiceStatus status = CheckWrite(caller, database, *variable, bytes, size);
    if (status == kDone) status = CheckValueSize(*variable, size);
    if (status == kDone) status = Store(database, caller, *variable, bytes, size);
    if (status == kDone) FollowWrite(caller, database, *variable, bytes, size);
    return status;
}

// No state.
#include "changes.h"

#include "composite.h"
#include "forwarding.h"
#include "printers.h"
#include "publishing.h"
#include "signals.h"
#include "watches.h"

#include "product/printer_list.h"

#include <algorithm>
#include <string.h>
#include <vector>

using namespace product;

namespace {

// ---- databases, variables and composites made

// Whether the caller may add variables or change what composites are made of: whoever makes the database until it is
// ready, then administrators.
bool MayShape(const Database& database, const Caller& caller) {
    return database.state.load(std::memory_order_acquire) != DatabaseState::Ready || IsAdministrator(caller);
}

// What a variable of that role may be made as.
bool IsFormOf(VariableRole role, DatabaseType type, const BYTE* bytes, DWORD size) {
    switch (role) {
    case VariableRole::Mailbox:
    case VariableRole::Answer:
        return IsForwardingForm(type, bytes, size);
    case VariableRole::AccessList:
    case VariableRole::PrinterList:
        return type == kTypeVariableLength;
    default:
        return true;
    }
}

// A printer list that begins with entries would bypass the check of those that are added.
bool MayBegin(const Caller& caller, VariableRole role, const BYTE* bytes, DWORD size) {
    return role != VariableRole::PrinterList || RoomFor(kTypeVariableLength, bytes, size) == 0 ||
           IsAdministrator(caller);
}

ServiceStatus AddAndSignal(Database& database, Account& account, const NewVariable& wanted, const BYTE* bytes,
                           DWORD size) REQUIRES(database.lock) {
    Variable* variable = nullptr;
    const ServiceStatus status = AddVariable(database, account, wanted, bytes, size, &variable);
    if (status != kDone) return status;
    PublishNewVariable(database, *variable);
    SignalWritten(database, Written{variable, true}); // for watchers of a composite that lists it
    return kDone;
}

// The first write to a name that is another variable's and "W": the variable takes the same values as the other.
// kVariableExists: another call made it.
ServiceStatus WriteNewCompanion(Database& database, const Caller& caller, std::string_view name, const BYTE* bytes,
                                DWORD size) {
    if (name.size() < 2 || name.back() != 'W') return kUnknownVariable;
    const Variable* base = FindVariable(database, name.substr(0, name.size() - 1));
    if (!base || base->companion || base->type == kTypeComposite) return kUnknownVariable;
    const VariableRole role = RoleOfCompanion(base->role);
    if (role == VariableRole::Setting && !IsAdministrator(caller)) return kAccessDenied;
    const ServiceStatus sizeStatus = CheckValueSize(*base, size);
    if (sizeStatus != kDone) return sizeStatus;
    LockHold hold{database.lock};
    if (FindVariable(database, name)) return kVariableExists;
    return AddAndSignal(database, *caller.group.account,
                        {name, static_cast<DatabaseType>(base->type), base->room, true, role}, bytes, size);
}

// ---- values written

// The first program that opens a printer fills its database and writes its name, which the printer list already has.
bool IsListedName(const Database& database, const BYTE* bytes, DWORD size) {
    const auto* text = reinterpret_cast<const char*>(bytes);
    const std::string_view name{text, strnlen(text, size)};
    return !name.empty() && IsListed(database.name, name);
}

// What an administrator has opened: names of variables, each followed by ";", or "*" for all.
constexpr char kOpenedValue[] = "VariablesForEveryone";
constexpr DWORD kOpenedMax = 4096;

// Read at each refusal that it may lift, so that it takes effect at once.
bool IsOpened(std::string_view variable) {
    char text[kOpenedMax + 1] = {};
    if (!ReadSetting(kOpenedValue, REG_SZ, text, kOpenedMax)) return false;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t end = std::min(rest.find(';'), rest.size());
        const std::string_view name = rest.substr(0, end);
        if (name == variable || name == "*") return true;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return false;
}

// Whether the caller may write that value: kDone, kAccessDenied or kNotWritable. The printer list decides for itself.
ServiceStatus CheckWrite(const Caller& caller, const Database& database, const Variable& variable, const BYTE* bytes,
                         DWORD size) {
    switch (variable.role) {
    case VariableRole::Mailbox:
        return kNotWritable;
    case VariableRole::PrinterName:
        if (IsListedName(database, bytes, size)) return kDone;
        [[fallthrough]];
    case VariableRole::Setting:
    case VariableRole::AccessList:
        return IsAdministrator(caller) ? kDone : kAccessDenied;
    case VariableRole::Answer:
        return IsPrinterSide(caller.group, database) ? kDone : kAccessDenied;
    case VariableRole::State:
        return MayShape(database, caller) || IsOpened(variable.name->Text()) ? kDone : kAccessDenied;
    case VariableRole::None:
    case VariableRole::PrinterList:
    case VariableRole::Request:
    case VariableRole::Polling:
    case VariableRole::Termination:
        break;
    }
    return kDone;
}

ServiceStatus Store(Database& database, const Caller& caller, Variable& variable, const BYTE* bytes, DWORD size) {
    Account& account = *caller.group.account;
    if (variable.role == VariableRole::PrinterList) return WritePrinterList(database, variable, caller, bytes, size);
    bool changed = false;
    const ServiceStatus status = variable.role == VariableRole::AccessList
                                     ? WriteAccessList(database, variable, account, bytes, size, &changed)
                                     : WriteValue(variable, database.store, account, bytes, size, &changed);
    if (status == kDone) SignalWritten(database, Written{&variable, changed});
    return status;
}

// After the value was stored and watchers were signalled.
void FollowWrite(const Caller& caller, Database& database, const Variable& variable, const BYTE* bytes, DWORD size) {
    switch (variable.role) {
    case VariableRole::Answer:
        TakeAnswer(database, bytes, size);
        break;
    case VariableRole::Request:
        AnswerUnserved(database);
        break;
    case VariableRole::Polling:
        WakePrinterSide(database);
        break;
    case VariableRole::Termination:
        if (std::any_of(bytes, bytes + size, [](BYTE byte) { return byte != 0; }) && IsAdministrator(caller))
            EndPrinterSides();
        break;
    default:
        break;
    }
}

// A caller that may not write one of the members writes none.
ServiceStatus WriteComposite(Database& database, const Caller& caller, const Variable& composite, const BYTE* bytes,
                             DWORD size) {
    Parts parts;
    GatherParts(database, composite, parts);
    if (parts.tooMany) return kLimitReached;
    if (!TakeWholeValue(parts, size)) return kWrongSize;
    Written written[kCompositePartsMax];
    const std::span<Written> all{written, parts.count};
    const BYTE* part = bytes;
    for (DWORD i = 0; i < parts.count; ++i) {
        Variable* variable = parts.variables[i];
        const ServiceStatus status = CheckWrite(caller, database, *variable, part, variable->room);
        if (status != kDone) return status;
        all[i] = {variable, false};
        part += variable->room;
    }
    WriteParts(database, parts, all, bytes);
    SignalWritten(database, all);
    part = bytes;
    for (const Written& each : all) {
        FollowWrite(caller, database, *each.variable, part, each.variable->room);
        part += each.variable->room;
    }
    return kDone;
}

} // namespace

ServiceStatus CreateDatabase(const Caller& caller, std::string_view name, DWORD handle, Database** created) {
    if (name.empty() || name.size() > kDatabaseNameMax || name.find('\\') != name.npos) return kBadName;
    if (FindDatabase(name) == nullptr && name != kMasterDatabase && !IsListed(name) && !IsAdministrator(caller))
        return kAccessDenied;
    return AddDatabase(*caller.group.account, name, handle, created);
}

ServiceStatus CreateVariable(Database& database, const Caller& caller, std::string_view name, DatabaseType type,
                             const BYTE* bytes, DWORD size) {
    if (type >= kTypeCount) return kBadArgument;
    if (type == kTypeComposite ? size != 0 : size == 0 && type != kTypeVariableLength) return kWrongSize;
    if (size > kValueSizeMax) return kLimitReached;
    const VariableRole role = RoleOf(database.name, name);
    if (!IsFormOf(role, type, bytes, size)) return kBadArgument;
    if (!MayShape(database, caller) || !MayBegin(caller, role, bytes, size)) return kAccessDenied;
    std::vector<BYTE> list;
    if (role == VariableRole::AccessList && !FirstAccessList(database, caller, bytes, size, list)) return kOutOfMemory;
    LockHold hold{database.lock};
    if (FindVariable(database, name)) return kVariableExists;
    const NewVariable wanted = {name, type, RoomFor(type, bytes, size), false, role};
    if (role == VariableRole::AccessList) {
        bytes = list.data();
        size = static_cast<DWORD>(list.size());
    }
    return AddAndSignal(database, *caller.group.account, wanted, bytes, size);
}

ServiceStatus SetCompositeMembers(Database& database, const Caller& caller, std::string_view composite,
                                  std::string_view list) {
    if (list.size() > kMemberListMax) return kLimitReached;
    if (!MayShape(database, caller)) return kAccessDenied;
    LockHold hold{database.lock};
    Variable* variable = FindVariable(database, composite);
    if (!variable) return kUnknownVariable;
    if (variable->type != kTypeComposite) return kBadArgument;
    const ServiceStatus status = StoreMembers(database, *caller.group.account, *variable, list);
    if (status != kDone) return status;
    PublishNewList(database, *variable);
    SignalWritten(database, Written{variable, true});
    return kDone;
}

ServiceStatus CreateVariables(Database& database, const Caller& caller, const BYTE* variables, DWORD size,
                              DWORD* made) {
    ServiceStatus first = kDone;
    for (DWORD at = 0; at < size;) {
        NewVariableHead head;
        if (size - at < sizeof head) return kBadArgument;
        memcpy(&head, variables + at, sizeof head);
        at += sizeof head;
        if (head.nameLength > size - at || head.valueSize > size - at - head.nameLength) return kBadArgument;
        const std::string_view name{reinterpret_cast<const char*>(variables + at), head.nameLength};
        const BYTE* value = variables + at + head.nameLength;
        const bool isComposite = head.type == kTypeComposite;
        ServiceStatus status = CreateVariable(database, caller, name, static_cast<DatabaseType>(head.type), value,
                                              isComposite ? 0 : head.valueSize);
        if (status == kDone && isComposite)
            status =
                SetCompositeMembers(database, caller, name, {reinterpret_cast<const char*>(value), head.valueSize});
        if (status == kDone) ++*made;
        if (first == kDone) first = status;
        at = std::min(size, (at + head.nameLength + head.valueSize + 3) / 4 * 4);
    }
    return first;
}

ServiceStatus MayWrite(Database& database, const Caller& caller, const Variable& variable) {
    if (variable.role == VariableRole::PrinterList) return IsAdministrator(caller) ? kDone : kAccessDenied;
    if (variable.type != kTypeComposite) return CheckWrite(caller, database, variable, nullptr, 0);
    Parts parts;
    GatherParts(database, variable, parts);
    for (DWORD i = 0; i < parts.count; ++i) {
        const ServiceStatus status = CheckWrite(caller, database, *parts.variables[i], nullptr, 0);
        if (status != kDone) return status;
    }
    return kDone;
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
    GrowPublication(database);
    return status;
}

ServiceStatus EndInitialisationOf(Database& database, DWORD handle) {
    const LockHold hold{database.lock};
    // First, so that it is complete when others find the database.
    if (database.state.load(std::memory_order_relaxed) == DatabaseState::Initialising) PublishDatabase(database);
    return EndInitialisation(database, handle);
}

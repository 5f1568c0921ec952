// Composite variables: values composed on read from their members' in list order.
#pragma once

#include "database.h"

// Immutable once it can be seen; what it replaces stays where it is.
struct alignas(void*) MemberList {
    struct Member {
        const Name* name;
        std::atomic<Variable*> variable; // once it exists
    };
    DWORD count;

    Member* Members() { return reinterpret_cast<Member*>(this + 1); }
};

// list: names, each followed by ";". Empty names are passed over, the last ";" may be missing.
dblink::ServiceStatus SetCompositeMembers(Database& database, Account& account, std::string_view composite,
                                          std::string_view list);

// Any variable's value: kDone, or kBufferTooSmall when capacity is less than state->size (out may hold anything then),
// or kLimitReached for a composite of too many parts or bytes. What is read was the value at one moment.
dblink::ServiceStatus ReadAnyValue(const Database& database, const Variable& variable, BYTE* out, DWORD capacity,
                                   ValueState* state);

// Whether the composite has that variable among its members, or theirs.
bool IsComposedOf(const Database& database, const Variable& composite, const Variable& variable);

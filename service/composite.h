// Composite variables: values composed on read from their members' in list order, each in the room that it was created
// with.
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
product::ServiceStatus SetCompositeMembers(Database& database, const Caller& caller, std::string_view composite,
                                           std::string_view list);

// Any variable's value: kDone, or kBufferTooSmall when capacity is less than state->size (out may hold anything then),
// or kLimitReached for a composite of too many parts or bytes. What is read was the value at one moment.
product::ServiceStatus ReadAnyValue(const Database& database, const Variable& variable, BYTE* out, DWORD capacity,
                                    ValueState* state);

// Gives each member its part of the value, all at one moment, and signals watchers. kWrongSize: the value is not as
// long as the composite; it has no members, one twice, or one of variable length, whose value would be cut. Who may not
// write one of the members writes none.
product::ServiceStatus WriteComposite(Database& database, const Caller& caller, const Variable& composite,
                                      const BYTE* bytes, DWORD size);

// Whether the composite has one of those variables among its members, or theirs; *changed: and one that changed.
bool IsComposedOf(const Database& database, const Variable& composite, std::span<const Written> variables,
                  bool* changed);

// Composite variables: values composed on read from their members' in list order, each in the room that it was created
// with. State: the list with its variable.
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

// list: names, each followed by ";". Empty names are passed over, the last ";" may be missing. kBadName, kLimitReached,
// kOutOfMemory.
product::ServiceStatus StoreMembers(Database& database, Account& account, Variable& composite, std::string_view list)
    REQUIRES(database.lock);

// Any variable's value: kDone, or kBufferTooSmall when capacity is less than state->size (out may hold anything then),
// or kLimitReached for a composite of too many parts or bytes. What is read was the value at one moment.
product::ServiceStatus ReadAnyValue(const Database& database, const Variable& variable, BYTE* out, DWORD capacity,
                                    ValueState* state);

// The variables that a composite comes down to, in order.
struct Parts {
    Variable* variables[product::kCompositePartsMax];
    DWORD count = 0;
    DWORD visits = 0; // of members, whether they contribute or not: what a list of composites can cost
    bool tooMany = false;
};

// parts: empty. depth: of the recursion.
void GatherParts(const Database& database, const Variable& composite, Parts& parts, DWORD depth = 1);
// Whether a value of that size can be written to the parts: there are any, none is there twice, and none is of variable
// length, whose value would be cut.
bool TakeWholeValue(const Parts& parts, DWORD size);
// Gives each its part of the value, all at one moment. written: one for each part, in order.
void WriteParts(const Parts& parts, std::span<Written> written, const BYTE* bytes);

// Whether the composite has one of those variables among its members, or theirs; *changed: and one that changed.
bool IsComposedOf(const Database& database, const Variable& composite, std::span<const Written> variables,
                  bool* changed);

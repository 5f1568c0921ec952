// Composite variables: a read composes the value from the members' values, in list order, each in the room that its
// variable was created with. State: the list, with its variable.
#pragma once

#include "database.h"

// Immutable once it is published. A list that is replaced is not freed.
struct alignas(void*) MemberList {
    struct Member {
        const Name* name;
        std::atomic<Variable*> variable; // once it exists
    };
    DWORD count;

    Member* Members() { return reinterpret_cast<Member*>(this + 1); }
};

// list: names, each followed by ";". Empty names are skipped; the last ";" may be missing. kBadName, kLimitReached,
// kOutOfMemory.
product::ServiceStatus StoreMembers(Database& database, Account& account, Variable& composite, std::string_view list)
    REQUIRES(database.lock);

// The slots of the parts, in order: what is published of a composite.
struct SlotList {
    SlotList(const Database& database, const Variable& composite);
    // Without memory when a part has no slot, or there are too many.
    std::span<const DWORD> Numbers() const { return isWhole ? std::span{numbers, count} : std::span<const DWORD>{}; }

    DWORD numbers[product::kCompositePartsMax];
    DWORD count = 0;
    bool isWhole = true;
};

// Reads any variable's value as it was at one moment. kBufferTooSmall: capacity is less than state->size, and out may
// hold anything. kLimitReached: a composite of too many parts or bytes.
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
// Whether a value of that size can be written to the parts: there are parts, none is listed twice, and none is of
// variable length, whose value would be cut.
bool TakeWholeValue(const Parts& parts, DWORD size);
// Stores each part's bytes of the value, all at one moment. written: one for each part, in order.
void WriteParts(Database& database, const Parts& parts, std::span<Written> written, const BYTE* bytes);

// Whether one of those variables is a part of the composite. *changed: one that changed is.
bool IsComposedOf(const Database& database, const Variable& composite, std::span<const Written> variables,
                  bool* changed);

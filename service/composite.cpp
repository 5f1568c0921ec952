// No state of its own: lists are with their variables.
#include "composite.h"

#include <algorithm>
#include <new>

using namespace product;

namespace {

Variable* Resolved(const Database& database, MemberList::Member& member) {
    Variable* variable = member.variable.load(std::memory_order_acquire);
    if (variable) return variable;
    variable = FindVariable(database, member.name->Text());
    if (variable)
        member.variable.store(variable, std::memory_order_release); // every thread that finds it stores the same
    return variable;
}

// Appends the parts' values; false when they are longer than any value may be.
bool CopyParts(const Parts& parts, const ValueState& own, BYTE* out, DWORD capacity, ValueState* state) {
    *state = own;
    for (DWORD i = 0; i < parts.count; ++i) {
        const DWORD used = std::min(state->size, capacity);
        const ValueState part = CopyPart(*parts.variables[i], out + used, capacity - used);
        state->size += part.size;
        state->writeTime = std::max(state->writeTime, part.writeTime);
        state->writes += part.writes;
        if (state->size > kValueSizeMax) return false;
    }
    return true;
}

bool Unchanged(const Parts& parts, const DWORD* sequences) {
    for (DWORD i = 0; i < parts.count; ++i)
        if (SequenceNow(*parts.variables[i]) != sequences[i]) return false;
    return true;
}

// Blocks the writers of all parts while it lives. The locks are taken in order, so that two of these cannot deadlock.
class PartsHold {
public:
    explicit PartsHold(const Parts& parts) NO_LOCK_ANALYSIS {
        for (DWORD i = 0; i < parts.count; ++i)
            m_locks |= 1ULL << WriterLockOf(*parts.variables[i]);
        for (DWORD lock = 0; lock < kWriterLocks; ++lock)
            if (m_locks >> lock & 1) g_writerLocks[lock].Enter();
    }
    ~PartsHold() NO_LOCK_ANALYSIS {
        for (DWORD lock = 0; lock < kWriterLocks; ++lock)
            if (m_locks >> lock & 1) g_writerLocks[lock].Leave();
    }

private:
    static_assert(kWriterLocks <= 64);
    ULONGLONG m_locks = 0;
};

ServiceStatus ReadComposite(const Database& database, const Variable& composite, BYTE* out, DWORD capacity,
                            ValueState* state) {
    Parts parts;
    GatherParts(database, composite, parts);
    if (parts.tooMany) return kLimitReached;
    // At least the time when it was made or its list was set.
    const ValueState own = {0, ReadWriteTime(composite), SequenceNow(composite) / 2};
    DWORD sequences[kCompositePartsMax];
    bool fits = false;
    bool consistent = false;
    for (int tries = 0; tries < kReadTries && !consistent; ++tries) {
        for (DWORD i = 0; i < parts.count; ++i)
            sequences[i] = SequenceBegin(*parts.variables[i]);
        fits = CopyParts(parts, own, out, capacity, state);
        consistent = Unchanged(parts, sequences);
    }
    if (!consistent) {
        const PartsHold hold{parts};
        fits = CopyParts(parts, own, out, capacity, state);
    }
    return fits ? kDone : kLimitReached;
}

// Takes the next name off a member list.
std::string_view NextName(std::string_view& list) {
    const size_t length = std::min(list.find(';'), list.size());
    const std::string_view name = list.substr(0, length);
    list.remove_prefix(std::min(length + 1, list.size()));
    return name;
}

ServiceStatus CountNames(std::string_view list, DWORD* count) {
    *count = 0;
    while (!list.empty()) {
        const std::string_view name = NextName(list);
        if (name.size() > kVariableNameMax) return kBadName;
        if (!name.empty()) ++*count;
    }
    return *count <= kCompositeMembersMax ? kDone : kLimitReached;
}

} // namespace

void GatherParts(const Database& database, const Variable& composite, Parts& parts, DWORD depth) {
    MemberList* list = composite.members.load(std::memory_order_acquire);
    for (DWORD i = 0; list && i < list->count; ++i) {
        if (++parts.visits > kCompositePartsMax) {
            parts.tooMany = true;
            return;
        }
        Variable* variable = Resolved(database, list->Members()[i]);
        if (!variable) continue;
        if (variable->type != kTypeComposite)
            parts.variables[parts.count++] = variable;
        else if (depth < kCompositeDepthMax)
            GatherParts(database, *variable, parts, depth + 1);
    }
}

ServiceStatus StoreMembers(Database& database, Account& account, Variable& composite, std::string_view list) {
    DWORD count = 0;
    ServiceStatus status = CountNames(list, &count);
    if (status != kDone) return status;
    void* piece = database.store.arena.Take(account, sizeof(MemberList) + count * sizeof(MemberList::Member),
                                            alignof(MemberList::Member), &status);
    if (!piece) return status;
    auto* members = new (piece) MemberList{count};
    for (DWORD i = 0; i < count;) {
        const std::string_view text = NextName(list);
        if (text.empty()) continue;
        const Name* name = InternName(account, text, &status);
        if (!name) return status;
        new (&members->Members()[i++]) MemberList::Member{name, FindVariable(database, text)};
    }
    composite.members.store(members, std::memory_order_release);
    TouchWriteTime(composite, database.store, SlotList{database, composite}.Numbers());
    return kDone;
}

SlotList::SlotList(const Database& database, const Variable& composite) {
    Parts parts;
    GatherParts(database, composite, parts);
    isWhole = !parts.tooMany;
    for (; count < parts.count; ++count) {
        numbers[count] = parts.variables[count]->slot.load(std::memory_order_relaxed);
        isWhole &= numbers[count] != 0;
    }
}

ServiceStatus ReadAnyValue(const Database& database, const Variable& variable, BYTE* out, DWORD capacity,
                           ValueState* state) {
    ServiceStatus status = kDone;
    if (variable.type == kTypeComposite)
        status = ReadComposite(database, variable, out, capacity, state);
    else
        *state = ReadValue(variable, out, capacity);
    if (status == kDone && state->size > capacity) return kBufferTooSmall;
    return status;
}

bool TakeWholeValue(const Parts& parts, DWORD size) {
    DWORD whole = 0; // no sum of 256 rooms of 8 MiB overflows
    for (DWORD i = 0; i < parts.count; ++i) {
        const Variable* variable = parts.variables[i];
        if (variable->type == kTypeVariableLength) return false;
        if (std::find(parts.variables, parts.variables + i, variable) != parts.variables + i) return false;
        whole += variable->room;
    }
    return parts.count > 0 && whole == size;
}

void WriteParts(Database& database, const Parts& parts, std::span<Written> written, const BYTE* bytes) {
    const PartsHold hold{parts};
    WriteTogether(written, database.store, bytes);
}

bool IsComposedOf(const Database& database, const Variable& composite, std::span<const Written> variables,
                  bool* changed) {
    Parts parts;
    GatherParts(database, composite, parts);
    bool found = false;
    *changed = false;
    for (const Written& written : variables) {
        Variable** end = parts.variables + parts.count;
        if (std::find(parts.variables, end, written.variable) == end) continue;
        found = true;
        *changed |= written.changed;
    }
    return found;
}

// No state.
#include "publishing.h"

#include "composite.h"

#include <algorithm>
#include <new>
#include <vector>

using namespace product;

namespace {

// Room for what a database gets once it is ready: mailboxes and companions, and values that grow. A section that
// replaces another has twice the room that it needs, so that all those before it together are not larger.
constexpr DWORD kSpareSlots = 8;
constexpr DWORD kSpareBytes = 512;

template <typename Function> // void(Variable&)
void ForEachVariable(const Database& database, Function function) {
    for (const std::atomic<Variable*>& bucket : database.buckets)
        for (Variable* variable = bucket.load(std::memory_order_acquire); variable;
             variable = variable->next.load(std::memory_order_relaxed))
            function(*variable);
}

// Those that have slots in the order of their numbers, which they keep.
std::vector<Variable*> InOrderOfSlots(const Database& database) {
    std::vector<Variable*> variables;
    ForEachVariable(database, [&](Variable& variable) { variables.push_back(&variable); });
    const auto number = [](const Variable* variable) { return variable->slot.load(std::memory_order_relaxed) - 1; };
    std::sort(variables.begin(), variables.end(),
              [&](const Variable* a, const Variable* b) { return number(a) < number(b); }); // 0 is the last
    return variables;
}

// What a slot gets from the start; a value that is longer than any that is published gets none.
DWORD CapacityFor(const Database& database, const Variable& variable) {
    if (variable.type == kTypeComposite) {
        Parts parts;
        GatherParts(database, variable, parts);
        return std::max<DWORD>(parts.count, 1) * sizeof(DWORD);
    }
    const DWORD size = variable.block.load(std::memory_order_acquire)->size.load(std::memory_order_relaxed);
    const DWORD capacity = variable.type == kTypeVariableLength ? size : variable.room;
    return capacity <= kPublishedValueMax ? capacity : 0;
}

DWORD Add(const Database& database, Publication& publication, const Variable& variable) {
    return AddSlot(publication, variable.name->Text(), static_cast<DatabaseType>(variable.type), variable.room,
                   CapacityFor(database, variable));
}

void Fill(Database& database, Variable& variable, DWORD slot, const Publication* replaced) {
    if (variable.type == kTypeComposite)
        FillSlot(variable, database.store, slot, SlotList{database, variable}.Numbers(), replaced);
    else
        FillSlot(variable, database.store, slot, {}, replaced);
}

// A value of a new section that was written to since the section could be found is written once more.
void FillAll(Database& database, const std::vector<Variable*>& variables, const Publication* replaced) {
    for (const bool composites : {false, true}) // whose lists have the slots of the others
        for (size_t i = 0; i < variables.size(); ++i)
            if ((variables[i]->type == kTypeComposite) == composites)
                Fill(database, *variables[i], static_cast<DWORD>(i + 1), replaced);
}

bool HasCompositeMember(const Database& database, const Variable& composite) {
    MemberList* list = composite.members.load(std::memory_order_acquire);
    for (DWORD i = 0; list && i < list->count; ++i) {
        const Variable* member = FindVariable(database, list->Members()[i].name->Text());
        if (member && member->type == kTypeComposite) return true;
    }
    return false;
}

// Null: it cannot be had, or clients would gain nothing from it.
Publication* MakePublication(Database& database, const std::vector<Variable*>& variables, bool replaces) {
    const auto count = static_cast<DWORD>(variables.size());
    DWORD bytes = 0; // no sum of 2048 lengths of at most 16 KiB overflows
    for (const Variable* variable : variables)
        bytes += variable->name->length + CapacityFor(database, *variable) + 16; // both are aligned to 8
    const DWORD slots = count + std::max(kSpareSlots, replaces ? count : 0);
    const DWORD most = kPublishedSectionMax - sizeof(PublishedHead) - slots * sizeof(PublishedSlot);
    bytes = std::min(bytes + (replaces ? bytes : bytes / 4) + kSpareBytes, std::max(bytes, most));
    Publication* publication = NewPublication(*database.account, database.name, slots, bytes);
    for (DWORD i = 0; publication && i < count; ++i) {
        if (Add(database, *publication, *variables[i]) == i + 1) continue;
        ReleasePublication(publication);
        return nullptr;
    }
    return publication;
}

} // namespace

void PublishDatabase(Database& database) {
    ValueStore& store = database.store;
    Publication* replaced = store.publication.load(std::memory_order_relaxed);
    try {
        const std::vector<Variable*> variables = InOrderOfSlots(database);
        Publication* publication = MakePublication(database, variables, replaced != nullptr);
        if (!publication) return;
        MarkReplaced(replaced);
        KeepReplaced(*publication, replaced);
        store.publication.store(publication, std::memory_order_seq_cst);
        FillAll(database, variables, replaced);
        for (Variable* variable : variables)
            if (VariableSignals* signals = variable->signals.load(std::memory_order_acquire)) PublishCounts(*signals);
        MarkCurrent(*publication);
    } catch (const std::bad_alloc&) { // nothing was replaced by then
    }
}

void PublishNewVariable(Database& database, Variable& variable) {
    Publication* publication = database.store.publication.load(std::memory_order_relaxed);
    if (!publication) return;
    const DWORD slot = Add(database, *publication, variable);
    if (slot != 0)
        Fill(database, variable, slot, nullptr);
    else
        PublishDatabase(database);
    const Written written{&variable, true};
    ForEachVariable(database, [&](Variable& other) {
        bool changed = false;
        if (other.type == kTypeComposite && IsComposedOf(database, other, std::span{&written, 1}, &changed))
            TouchWriteTime(other, database.store, SlotList{database, other}.Numbers());
    });
}

void PublishNewList(Database& database, const Variable& composite) {
    if (!database.store.publication.load(std::memory_order_relaxed)) return;
    ForEachVariable(database, [&](Variable& other) {
        if (&other != &composite && other.type == kTypeComposite && HasCompositeMember(database, other))
            TouchWriteTime(other, database.store, SlotList{database, other}.Numbers());
    });
}

void GrowPublication(Database& database) {
    if (!database.store.publicationIsFull.load(std::memory_order_relaxed)) return;
    const LockHold hold{database.lock};
    if (database.store.publicationIsFull.exchange(false)) PublishDatabase(database);
}

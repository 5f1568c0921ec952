// Reading a published section. No state.
#include "product/published_values.h"

#include "product/file_times.h"

#include <algorithm>
#include <iterator>
#include <string.h>

namespace product {

namespace {

// Of a reader who meets writers in every one of them: it asks then.
constexpr int kTries = 64;

const PublishedHead& HeadOf(const PublishedSection& section) {
    return *reinterpret_cast<const PublishedHead*>(section.base);
}

bool IsCurrent(const PublishedSection& section) {
    return HeadOf(section).state.load(std::memory_order_acquire) == kSectionCurrent;
}

bool LiesWithin(const PublishedSection& section, DWORD place, DWORD size) {
    return place <= section.size && size <= section.size - place;
}

// number: from 1. Null: there is no such slot within the section.
const PublishedSlot* SlotAt(const PublishedSection& section, DWORD number) {
    const DWORD room = (section.size - sizeof(PublishedHead)) / sizeof(PublishedSlot);
    if (number == 0 || number > room) return nullptr;
    return reinterpret_cast<const PublishedSlot*>(section.base + sizeof(PublishedHead)) + (number - 1);
}

bool HasName(const PublishedSection& section, const PublishedSlot& slot, std::string_view name) {
    return slot.nameLength == name.size() && LiesWithin(section, slot.name, slot.nameLength) &&
           memcmp(section.base + slot.name, name.data(), name.size()) == 0;
}

const PublishedSlot* FindSlot(const PublishedSection& section, std::string_view name) {
    if (section.size < sizeof(PublishedHead)) return nullptr;
    const DWORD hash = PublishedHash(name);
    const PublishedHead& head = HeadOf(section);
    const PublishedSlot* slot = SlotAt(section, head.buckets[hash % kPublishedBuckets].load(std::memory_order_acquire));
    // No chain is longer than there are slots, whatever the memory says.
    for (DWORD steps = section.size / sizeof(PublishedSlot); slot && steps > 0; --steps) {
        if (slot->hash == hash && HasName(section, *slot, name)) return slot;
        slot = SlotAt(section, slot->next);
    }
    return nullptr;
}

// Copies by words, which no reordering moves behind the second look at the sequence: acquire loads follow one another.
// The thread sanitizer understands it, unlike a fence.
void CopyBytes(const PublishedSection& section, DWORD place, DWORD size, BYTE* out) {
    using Word = std::atomic<SIZE_T>;
    const BYTE* from = section.base + place;
    for (DWORD at = 0; at < size;) {
        const DWORD within = static_cast<DWORD>(reinterpret_cast<UINT_PTR>(from + at) % sizeof(SIZE_T));
        const auto* word = reinterpret_cast<const Word*>(from + at - within);
        const SIZE_T bytes = word->load(std::memory_order_acquire);
        const DWORD count = std::min<DWORD>(sizeof bytes - within, size - at);
        if (count == sizeof bytes)
            memcpy(out + at, &bytes, sizeof bytes);
        else
            memcpy(out + at, reinterpret_cast<const BYTE*>(&bytes) + within, count);
        at += count;
    }
}

// Where the slot's value is; false when the section does not hold it. Values begin and end within words that lie in
// the section, whose size is a multiple of 8.
bool FindValue(const PublishedSection& section, const PublishedSlot& slot, DWORD* place, DWORD* size) {
    *size = slot.size.load(std::memory_order_acquire);
    *place = slot.place.load(std::memory_order_acquire);
    return *size <= kPublishedValueMax && *place % sizeof(ULONGLONG) == 0 && LiesWithin(section, *place, *size);
}

struct Look {
    const PublishedSlot* slot;
    DWORD sequence;

    bool Begin(const PublishedSlot& seen) {
        slot = &seen;
        sequence = seen.sequence.load(std::memory_order_acquire);
        return sequence % 2 == 0;
    }
    bool StillHolds() const { return slot->sequence.load(std::memory_order_relaxed) == sequence; }
};

struct Counts {
    DWORD writes = 0;
    DWORD changes = 0;
    ULONGLONG writeTime = 0;

    void Add(const Look& look) {
        writes += look.sequence / 2;
        changes += look.slot->changes.load(std::memory_order_acquire);
        const ULONGLONG low = look.slot->time[0].load(std::memory_order_acquire);
        const ULONGLONG high = look.slot->time[1].load(std::memory_order_acquire);
        writeTime = std::max(writeTime, high << 32 | low);
    }
};

// Of an attempt at a consistent copy.
enum class Attempt { Done, TooSmall, Torn, Ask };

Attempt TryPlain(const PublishedSection& section, const PublishedSlot& slot, BYTE* out, DWORD capacity,
                 PublishedState* state) {
    Look look;
    if (!look.Begin(slot)) return Attempt::Torn;
    DWORD place = 0;
    DWORD size = 0;
    const bool found = FindValue(section, slot, &place, &size);
    const bool fits = found && size <= capacity;
    if (fits) CopyBytes(section, place, size, out);
    Counts counts;
    counts.Add(look);
    if (!look.StillHolds()) return Attempt::Torn;
    if (!found) return Attempt::Ask;
    *state = {slot.type, size, counts.writeTime, counts.writes, counts.changes};
    return fits ? Attempt::Done : Attempt::TooSmall;
}

// The part of a variable-length value is its payload, which follows its length.
Attempt CopyPart(const PublishedSection& section, const PublishedSlot& part, BYTE* out) {
    DWORD place = 0;
    DWORD size = 0;
    if (!FindValue(section, part, &place, &size)) return Attempt::Ask;
    const DWORD from = part.type == kTypeVariableLength ? std::min<DWORD>(sizeof(DWORD), size) : 0;
    const DWORD count = std::min(size - from, part.room);
    CopyBytes(section, place + from, count, out);
    memset(out + count, 0, part.room - count);
    return Attempt::Done;
}

// Its room on the stack is not for threads that read plain values alone.
[[gnu::noinline]] Attempt TryComposite(const PublishedSection& section, const PublishedSlot& slot, BYTE* out,
                                       DWORD capacity, PublishedState* state) {
    Look own;
    if (!own.Begin(slot)) return Attempt::Torn;
    DWORD place = 0;
    DWORD listSize = 0;
    DWORD parts[kCompositePartsMax];
    const bool found = FindValue(section, slot, &place, &listSize) && listSize <= sizeof parts;
    if (found) CopyBytes(section, place, listSize, reinterpret_cast<BYTE*>(parts));
    Counts ownCounts;
    ownCounts.Add(own);
    if (!own.StillHolds()) return Attempt::Torn;
    if (!found) return Attempt::Ask;

    Look looks[kCompositePartsMax];
    const DWORD count = listSize / sizeof(DWORD);
    DWORD size = 0; // no sum of 256 rooms that are below a limit overflows
    for (DWORD i = 0; i < count; ++i) {
        const PublishedSlot* part = SlotAt(section, parts[i]);
        if (!part || part->type == kTypeComposite || part->room > kPublishedValueMax) return Attempt::Ask;
        if (!looks[i].Begin(*part)) return Attempt::Torn;
        size += part->room;
    }
    Counts counts;
    Attempt attempt = size <= capacity ? Attempt::Done : Attempt::TooSmall;
    for (DWORD i = 0; i < count; ++i) {
        counts.Add(looks[i]);
        if (attempt != Attempt::Done) continue;
        const Attempt copied = CopyPart(section, *looks[i].slot, out);
        if (copied == Attempt::Done)
            out += looks[i].slot->room;
        else
            attempt = copied;
    }
    if (!own.StillHolds() || !std::all_of(looks, looks + count, [](const Look& look) { return look.StillHolds(); }))
        return Attempt::Torn;
    *state = {kTypeComposite, size, std::max(ownCounts.writeTime, counts.writeTime),
              ULONGLONG{ownCounts.writes} << 32 | counts.writes, ULONGLONG{ownCounts.changes} << 32 | counts.changes};
    return attempt;
}

} // namespace

VariableInfo ToVariableInfo(const PublishedState& state) {
    return {state.type, state.size, WriteCount(state.writes), ToSystemTime(state.writeTime)};
}

DWORD PublishedHash(std::string_view name) {
    DWORD hash = 2166136261U;
    for (const char c : name)
        hash = (hash ^ static_cast<BYTE>(c)) * 16777619U;
    return hash;
}

PublishedRead ReadPublished(const PublishedSection& section, std::string_view name, BYTE* out, DWORD capacity,
                            PublishedState* state) {
    const PublishedSlot* slot = FindSlot(section, name);
    if (!slot) return PublishedRead::Ask;
    Attempt attempt = Attempt::Torn;
    for (int tries = 0; tries < kTries && attempt == Attempt::Torn; ++tries)
        attempt = slot->type == kTypeComposite ? TryComposite(section, *slot, out, capacity, state)
                                               : TryPlain(section, *slot, out, capacity, state);
    if (attempt == Attempt::Torn || attempt == Attempt::Ask) return PublishedRead::Ask;
    state->updatedPulses = slot->pulses[0].load(std::memory_order_acquire);
    state->changedPulses = slot->pulses[1].load(std::memory_order_acquire);
    state->watched = std::any_of(std::begin(slot->watches), std::end(slot->watches),
                                 [](const auto& count) { return count.load(std::memory_order_acquire) != 0; });
    if (!IsCurrent(section)) return PublishedRead::Ask;
    return attempt == Attempt::Done ? PublishedRead::Done : PublishedRead::TooSmall;
}

} // namespace product

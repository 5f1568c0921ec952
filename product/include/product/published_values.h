// Values that the service publishes: for each database a section of shared memory, which clients only read, with every
// variable's value, write time and counts. A client that has mapped it reads without a call. The service tells the name
// of the section (PublishedValues of interface.h).
//
// Layout, little-endian, all places in bytes from the beginning of the section:
//
//   PublishedHead      with a hash table of the variables' names
//   PublishedSlot[]    one for each variable, slotRoom of them, slotCount in use
//   names and values   wherever the slots say; values begin at multiples of 8
//
// A sequence lock guards each slot: its sequence is odd while the service changes the slot, and a reader keeps what it
// copied when the sequence was even and the same before and after. The value of a composite is the list of the slots
// of its parts, DWORD each. Its bytes are the parts' (see SetCompositeMembers), read between the same two looks at all
// their sequences, so that a write of several variables is seen whole or not at all.
//
// A section that has become too small is replaced by a larger one. It is marked first, so that no reader takes an old
// value for the present one. A reader asks the service when a section, or a slot, says so, and when the service has
// ended (service_life.h). It trusts no number in the section, and stays within the memory that it has mapped.
//
// No state.
#pragma once

#include "product/interface.h"

#include <atomic>
#include <stdint.h>

namespace product {

inline constexpr DWORD kPublishedMark = 0x32627550; // "Pub2"
inline constexpr DWORD kPublishedBuckets = 64;
inline constexpr DWORD kPublishedSectionMax = 1 << 20;
// Longer values are asked for. 16 KiB, and the length of one of variable length.
inline constexpr DWORD kPublishedValueMax = 16384 + 8;
// PublishedSlot.size of a value that is not there.
inline constexpr DWORD kAskService = 0xFFFFFFFF;

enum PublishedSectionState : DWORD {
    kSectionReplaced = 0, // its values may be old
    kSectionCurrent = 1
};

struct PublishedHead {
    std::atomic<DWORD> mark; // kPublishedMark
    std::atomic<DWORD> state;
    DWORD slotRoom;
    std::atomic<DWORD> slotCount;
    std::atomic<DWORD> buckets[kPublishedBuckets]; // number of the first slot, from 1; 0: none
};
static_assert(sizeof(PublishedHead) == 16 + 4 * kPublishedBuckets);

struct PublishedSlot {
    // Constant once a bucket leads to the slot.
    DWORD next; // slot of the bucket, from 1; 0: none
    DWORD hash; // PublishedHash of the name
    DWORD name; // place of its bytes
    DWORD nameLength;
    DWORD type; // DatabaseType
    DWORD room; // bytes that it takes in a composite

    std::atomic<DWORD> sequence; // odd while it is changed; half of it counts the writes
    std::atomic<DWORD> changes;  // writes of other bytes than before
    std::atomic<DWORD> time[2];  // of the last write, low and high half of 100 ns since 1601, UTC
    std::atomic<DWORD> size;     // or kAskService
    std::atomic<DWORD> place;    // of the value
    // Pulses begun of the "Updated" and of the "Changed" event. Not part of what the sequence guards.
    std::atomic<DWORD> pulses[2];
    std::atomic<DWORD> watches[2]; // of the two events, likewise
};
static_assert(sizeof(PublishedSlot) == 64 && sizeof(PublishedHead) % 8 == 0 &&
              std::atomic<DWORD>::is_always_lock_free && std::atomic<SIZE_T>::is_always_lock_free);

DWORD PublishedHash(std::string_view name); // FNV-1a of 32 bits

// The memory of a section in this process. size: from the service, not from the section.
struct PublishedSection {
    const BYTE* base;
    DWORD size;
};

// What was last written to a variable, at one moment.
struct PublishedState {
    DWORD type;
    DWORD size; // of the value
    ULONGLONG writeTime;
    // How often it was written, and with other bytes. Of a composite, its own count in the high half (its list was set)
    // and the sum of its parts' in the low half. Compare for equality only.
    ULONGLONG writes;
    ULONGLONG changes;
    // Pulses begun of the two events. They are read last: a write that is not counted above is followed by its pulse.
    DWORD updatedPulses;
    DWORD changedPulses;
    bool watched; // by anybody, either event
};

// `writes` as the service counts them (VariableInfo).
inline DWORD WriteCount(ULONGLONG writes) {
    return static_cast<DWORD>(writes) + static_cast<DWORD>(writes >> 32);
}
VariableInfo ToVariableInfo(const PublishedState& state);

enum class PublishedRead {
    Done,
    TooSmall, // the buffer holds nothing of the value; the state counts
    Ask       // the section does not tell: ask the service
};

// Copies the value to out if it is at most capacity bytes long; out may be null with capacity 0. The bytes of out
// behind the value are left alone; on Ask, out may hold anything.
PublishedRead ReadPublished(const PublishedSection& section, std::string_view name, BYTE* out, DWORD capacity,
                            PublishedState* state);

} // namespace product

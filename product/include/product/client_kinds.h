// Client kinds: the role that a manager is opened in, and what the role changes. No state: constant data.
#pragma once

#include <tvsqdz.h>

#include <stdint.h>

struct ClientKind {
    // Its bit in the kind masks of the process and the machine. Kinds 4 and 12 share one.
    uint32_t bit = 0;
    // Needs an initialised product and adds no printer, unless the process is one of the product's own.
    bool needsProduct = false;
    // Starts the desktop agent.
    bool startsAgent = false;
    // Leaves the messages of its notifications to the printer's owner.
    bool relaysMessages = false;
    // The process's first open repairs a default printer that no longer exists.
    bool repairsDefaultPrinter = false;
};

inline constexpr ClientKind kClientKinds[] = {
    /* 0 */ {.bit = 0, .needsProduct = true, .startsAgent = true, .relaysMessages = true},
    /* 1 */ {.bit = 0x1},
    /* 2 */ {.bit = 0x2, .repairsDefaultPrinter = true},
    /* 3 */ {.bit = 0x4, .repairsDefaultPrinter = true},
    /* 4 */ {.bit = 0x8, .repairsDefaultPrinter = true},
    /* 5 */ {.bit = 0x10, .repairsDefaultPrinter = true},
    /* 6 */ {.bit = 0x20, .repairsDefaultPrinter = true},
    /* 7 */
    {.bit = 0x40, .needsProduct = true, .startsAgent = true, .relaysMessages = true, .repairsDefaultPrinter = true},
    /* 8 */ {.bit = 0x80, .needsProduct = true, .startsAgent = true},
    /* 9 */ {.bit = 0x100, .needsProduct = true, .relaysMessages = true},
    /* 10 */ {.bit = 0x200, .needsProduct = true, .repairsDefaultPrinter = true},
    /* 11 */ {.bit = 0x400, .startsAgent = true, .repairsDefaultPrinter = true},
    /* 12 */ {.bit = 0x8, .repairsDefaultPrinter = true},
};
static_assert(sizeof kClientKinds / sizeof kClientKinds[0] == TVS_KIND_HIGHEST + 1);

// A number above the highest kind has no effects.
constexpr ClientKind KindOf(uint32_t number) {
    return number <= TVS_KIND_HIGHEST ? kClientKinds[number] : ClientKind{};
}

// Kind mask bit: a manager asks for compulsive polling.
inline constexpr uint32_t kPollingKindBit = kClientKinds[TVS_KIND_POLLING].bit;

// This kind waits longer for the desktop agent that it starts.
inline constexpr uint32_t kAgentWaitingKind = 11;

// Kind mask bit: some process has an owner manager, which serves what others relay to it.
inline constexpr uint32_t kOwnerKindBit = kClientKinds[TVS_KIND_OWNER].bit;

// Kind mask bits: a process that has opened a manager of any of these kinds delivers its messages itself.
consteval uint32_t LocalDeliveryKinds() {
    uint32_t bits = 0;
    for (const ClientKind& kind : kClientKinds)
        if (!kind.relaysMessages) bits |= kind.bit;
    return bits;
}
inline constexpr uint32_t kLocalDeliveryKinds = LocalDeliveryKinds();
static_assert(kLocalDeliveryKinds == 0x6BF);

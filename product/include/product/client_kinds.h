// Client kinds: what a manager is opened as, and what that changes at its open.
#pragma once

#include <tvsqdz.h>

#include <stdint.h>

struct ClientKind {
    // In the process's and the machine's kind mask. Kinds 4 and 12 share one.
    uint32_t bit = 0;
    // Opens only once the product is initialised, and adds no printer, unless the process is one of the product's own.
    bool needsProduct = false;
    // Starts the desktop agent.
    bool startsAgent = false;
    // Leaves the messages of its notifications to the printer's owner.
    bool relaysMessages = false;
    // The process's first open repairs a default printer that does not exist any more.
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

// This process has opened a manager that asks for compulsive polling.
inline constexpr uint32_t kPollingKindBit = kClientKinds[TVS_KIND_POLLING].bit;

// A desktop agent started by this kind is waited for longer.
inline constexpr uint32_t kAgentWaitingKind = 11;

// Some process has an owner manager, which serves what others relay to it.
inline constexpr uint32_t kOwnerKindBit = kClientKinds[TVS_KIND_OWNER].bit;

// A process that opened a manager of any of these delivers its messages itself.
consteval uint32_t LocalDeliveryKinds() {
    uint32_t bits = 0;
    for (const ClientKind& kind : kClientKinds)
        if (!kind.relaysMessages) bits |= kind.bit;
    return bits;
}
inline constexpr uint32_t kLocalDeliveryKinds = LocalDeliveryKinds();
static_assert(kLocalDeliveryKinds == 0x6BF);

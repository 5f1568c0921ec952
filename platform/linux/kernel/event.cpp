// Events.
//
// The word of a manual-reset event counts: odd is set, even is not. A waiter remembers the word as it found it, unset;
// from there only a set or a pulse can move it, so that any change means that the waiter is through, also when a reset
// has followed already.
//
// The word of an automatic one holds two counters of 16 bits: below, the same, where both a reset and a waiter's taking
// move it from odd to even; above, how many have been taken. A waiter that finds more sets than takings since its wait
// began is through even if a reset has followed.
//
// Setting is one system call that changes the word and wakes all sleepers: a process that is killed cannot have set an
// event and not woken them.
#include "base/call.h"
#include "kernel/named_object.h"

#include "security/records.h"

#include <errhandlingapi.h>
#include <new>
#include <synchapi.h>

namespace oriel {
namespace {

constexpr uint32_t kSet = 1;
constexpr uint32_t kLowHalf = 0xFFFF;
constexpr uint32_t kOneTaken = 0x10000;

void DropEvent(Object* object) {
    auto* event = static_cast<NamedObject*>(object);
    if (DropNamed(event)) delete event;
}

Grab GrabManual(NamedObject& event, WaitPoint& point) {
    const uint32_t now = event.head->word.load(std::memory_order_acquire);
    if ((now & kSet) != 0 || (point.begun && now != point.first)) return Grab::Got;
    point.first = now;
    point.value = now;
    point.begun = true;
    return Grab::Busy;
}

// The word with its lower half moved from odd to even.
uint32_t Cleared(uint32_t word) {
    return (word & ~kLowHalf) | ((word + 1) & kLowHalf);
}

// How many sets have begun, and how many were taken, less what it was at `first`; both modulo 2^15.
int32_t NotTaken(uint32_t first, uint32_t now) {
    const auto sets = [](uint32_t word) { return ((word & kLowHalf) + 1) >> 1; };
    const uint32_t difference = (sets(now) - sets(first)) - ((now >> 16) - (first >> 16));
    return static_cast<int32_t>(difference << 17) >> 17;
}

Grab GrabAutomatic(NamedObject& event, WaitPoint& point) {
    uint32_t now = event.head->word.load(std::memory_order_acquire);
    for (;;) {
        const int32_t notTaken = point.begun ? NotTaken(point.first, now) : 0;
        const bool set = (now & kSet) != 0;
        if (!set && notTaken < 1) break;
        // With two to choose from, the earlier one, which a reset has hidden from those who came later.
        const uint32_t next = (set && notTaken < 2 ? Cleared(now) : now) + kOneTaken;
        if (event.head->word.compare_exchange_weak(now, next, std::memory_order_acq_rel)) return Grab::Got;
    }
    if (!point.begun) point.first = now;
    point.value = now;
    point.begun = true;
    return Grab::Busy;
}

Grab GrabEvent(Object* object, WaitPoint& point, bool) {
    auto& event = *static_cast<NamedObject*>(object);
    point.word = &event.head->word;
    point.shared = event.named;
    return event.kind == ObjectKind::ManualEvent ? GrabManual(event, point) : GrabAutomatic(event, point);
}

constexpr ObjectType kEventType{.name = "event", .drop = DropEvent, .grab = GrabEvent};

constexpr RightsMap kEventRights{.read = STANDARD_RIGHTS_READ | 0x1,
                                 .write = STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                                 .execute = READ_CONTROL | SYNCHRONIZE,
                                 .all = EVENT_ALL_ACCESS};

NamedObject* MakeEvent() {
    return new (std::nothrow) NamedObject{{&kEventType}};
}

// The event goes back to unset; what it was before.
bool Clear(NamedObject& event) {
    Word& word = event.head->word;
    const bool manual = event.kind == ObjectKind::ManualEvent;
    uint32_t now = word.load(std::memory_order_relaxed);
    do {
        if ((now & kSet) == 0) return false;
    } while (!word.compare_exchange_weak(now, manual ? now + 1 : Cleared(now), std::memory_order_acq_rel));
    return true;
}

BOOL Written(bool written) {
    if (!written) SetLastError(ERROR_NOACCESS); // the file has been cut short
    return written ? TRUE : FALSE;
}

} // namespace
} // namespace oriel

using namespace oriel;

HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState, LPCSTR name) {
    TerminationHold hold;
    if (!AttributesAreSupported(attributes)) return nullptr;
    bool existed = false;
    NamedObject* event = OpenNamed({.type = &kEventType,
                                    .kind = manualReset ? ObjectKind::ManualEvent : ObjectKind::AutoEvent,
                                    .name = name,
                                    .create = true,
                                    .forEveryone = GrantsEveryone(attributes),
                                    .word = initialState ? kSet : 0,
                                    .make = MakeEvent},
                                   existed);
    return HandleOfCreated(event, existed);
}

HANDLE WINAPI OpenEventA(DWORD access, BOOL inherit, LPCSTR name) {
    TerminationHold hold;
    if (inherit) return Fail(ERROR_NOT_SUPPORTED, nullptr);
    bool existed = false;
    NamedObject* event =
        OpenNamed({.type = &kEventType, .kind = ObjectKind::ManualEvent, .name = name, .make = MakeEvent}, existed);
    return HandleWithRights(event, access, kEventRights);
}

BOOL WINAPI SetEvent(HANDLE handle) {
    HandleUse<NamedObject> event(handle, kEventType, EVENT_MODIFY_STATE);
    if (!event) return FALSE;
    // A change by nothing, rather than a look: it puts what the caller wrote before in front of the reset of whoever
    // finds the event set by this call.
    if ((event->head->word.fetch_add(0, std::memory_order_acq_rel) & kSet) != 0) return TRUE;
    return Written(OrAndWakeAll(event->head->word, kSet, event->named));
}

BOOL WINAPI ResetEvent(HANDLE handle) {
    HandleUse<NamedObject> event(handle, kEventType, EVENT_MODIFY_STATE);
    if (!event) return FALSE;
    Clear(*event.Get());
    return TRUE;
}

BOOL WINAPI PulseEvent(HANDLE handle) {
    HandleUse<NamedObject> event(handle, kEventType, EVENT_MODIFY_STATE);
    if (!event) return FALSE;
    if (event->kind != ObjectKind::ManualEvent) return Fail(ERROR_NOT_SUPPORTED);
    // While it is set nobody waits for it. A set that comes in between stays: it came after the pulse.
    event->head->word.fetch_add(0, std::memory_order_acq_rel);
    if (Clear(*event.Get())) return TRUE;
    return Written(AddAndWakeAll(event->head->word, 2, event->named));
}

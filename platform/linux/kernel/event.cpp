// Events: CreateEventA, OpenEventA, SetEvent, ResetEvent, PulseEvent, OrielEventPosition, OrielStepInWait. State: the
// word in the head of each event (named_object.h), and its step.
//
// Manual reset: the word is a counter, odd while the event is set. A waiter remembers the even value that it found.
// Only a set or a pulse changes an even value, so any change releases the waiter, even if a reset has followed. The
// even value is the event's position: a wait that begins at an earlier one is released at once.
//
// Automatic reset: the word holds two counters of 16 bits. The lower one is odd while the event is set; a reset, or a
// waiter that takes the event, makes it even again. The upper one counts how often the event was taken. A waiter that
// finds more sets than takings since its wait began is released, even if a reset has followed.
//
// A set changes the word and wakes all sleepers in one system call, so a killed process cannot set an event and leave
// its waiters asleep.
//
// Whoever may set a named event can also write its word without a wake. So a set event does not prove that nobody
// sleeps, and a set or a pulse of a named event always wakes.
#include "base/call.h"
#include "kernel/named_object.h"

#include <errhandlingapi.h>
#include <new>
#include <oriel_wait.h>
#include <synchapi.h>

namespace oriel {
namespace {

struct EventObject;

// What OrielStepInWait returns. It has a reference to both events.
struct StepObject : Object {
    EventObject* event;
    NamedObject* signal;
    ORIEL_WAIT_STEP step;
    void* context;
};

struct EventObject : NamedObject {
    Lock lock;                              // held during the step, so that its end waits for it
    std::atomic<StepObject*> step{nullptr}; // changed under the lock
};

constexpr uint32_t kSet = 1;
constexpr uint32_t kLowHalf = 0xFFFF;
constexpr uint32_t kOneTaken = 0x10000;

void DropEvent(Object* object) {
    auto* event = static_cast<EventObject*>(object);
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

// Makes the lower counter even; the upper one stays.
uint32_t Cleared(uint32_t word) {
    return (word & ~kLowHalf) | ((word + 1) & kLowHalf);
}

// Sets minus takings since the word was `first`, modulo 2^15, with sign.
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
        // Of two sets, take the earlier one: a reset hides it from all later waiters. The event stays set for them.
        const uint32_t next = (set && notTaken < 2 ? Cleared(now) : now) + kOneTaken;
        if (event.head->word.compare_exchange_weak(now, next, std::memory_order_acq_rel)) return Grab::Got;
    }
    if (!point.begun) point.first = now;
    point.value = now;
    point.begun = true;
    return Grab::Busy;
}

// Does the event's step if its signal has come since the last look. A wait that has not looked yet leaves what came
// before to others.
bool DoStep(EventObject& event, WaitPoint& point) {
    if (event.step.load(std::memory_order_relaxed) == nullptr && point.signal == nullptr) return false;
    Object* before = point.signal;
    bool came = false;
    {
        const LockHold hold(event.lock);
        const StepObject* step = event.step.load(std::memory_order_relaxed);
        NamedObject* signal = step != nullptr ? step->signal : nullptr;
        if (signal != before) {
            if (signal != nullptr) signal->references.fetch_add(1, std::memory_order_relaxed);
            point.signal = signal;
        }
        if (signal != nullptr) {
            const uint32_t now = signal->head->word.load(std::memory_order_acquire);
            came = signal == before && now != point.signalled.value;
            point.signalled = {&signal->head->word, now, signal->named};
            if (came) step->step(step->context);
        }
    }
    if (before != nullptr && before != point.signal) DropReference(before);
    return came;
}

Grab GrabEvent(Object* object, WaitPoint& point, bool goingToSleep) {
    auto& event = *static_cast<EventObject*>(object);
    point.word = &event.head->word;
    point.shared = event.named;
    const auto grab = event.kind == ObjectKind::ManualEvent ? GrabManual : GrabAutomatic;
    const Grab result = grab(event, point);
    return result == Grab::Busy && goingToSleep && DoStep(event, point) ? grab(event, point) : result;
}

bool IsManual(const Object* object) {
    return static_cast<const NamedObject*>(object)->kind == ObjectKind::ManualEvent;
}

constexpr ObjectType kEventType{.name = "event", .drop = DropEvent, .grab = GrabEvent, .remembers = IsManual};

constexpr RightsMap kEventRights{.read = STANDARD_RIGHTS_READ | 0x1,
                                 .write = STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                                 .execute = READ_CONTROL | SYNCHRONIZE,
                                 .all = EVENT_ALL_ACCESS};

NamedObject* MakeEvent() {
    return new (std::nothrow) EventObject{{{&kEventType}}};
}

// Resets the event. True when it was set.
bool Clear(NamedObject& event) {
    Word& word = event.head->word;
    const bool manual = event.kind == ObjectKind::ManualEvent;
    uint32_t now = word.load(std::memory_order_relaxed);
    do {
        if ((now & kSet) == 0) return false;
    } while (!word.compare_exchange_weak(now, manual ? now + 1 : Cleared(now), std::memory_order_acq_rel));
    return true;
}

void DropStep(Object* object) {
    if (!LastReference(object)) return;
    auto* step = static_cast<StepObject*>(object);
    {
        const LockHold hold(step->event->lock);
        step->event->step.store(nullptr, std::memory_order_relaxed);
    }
    WakeAll(step->event->head->word, step->event->named); // the waits give up the signal
    DropReference(step->event);
    DropReference(step->signal);
    delete step;
}

constexpr ObjectType kStepType{.name = "step in a wait", .drop = DropStep};

BOOL Written(bool written) {
    return written ? TRUE : Fail(ERROR_NOACCESS); // never: the event's memory is there
}

} // namespace
} // namespace oriel

using namespace oriel;

HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState, LPCSTR name) {
    return CreateByName({.type = &kEventType,
                         .kind = manualReset ? ObjectKind::ManualEvent : ObjectKind::AutoEvent,
                         .name = name,
                         .word = initialState ? kSet : 0,
                         .make = MakeEvent},
                        attributes);
}

HANDLE WINAPI OpenEventA(DWORD access, BOOL inherit, LPCSTR name) {
    constexpr DWORD kChanging = EVENT_MODIFY_STATE | GENERIC_WRITE | GENERIC_ALL;
    return OpenByName({.type = &kEventType,
                       .kind = ObjectKind::ManualEvent,
                       .name = name,
                       .make = MakeEvent,
                       .readingIsEnough = (access & kChanging) == 0},
                      access, inherit, kEventRights);
}

BOOL WINAPI SetEvent(HANDLE handle) {
    HandleUse<NamedObject> event(handle, kEventType, EVENT_MODIFY_STATE);
    if (!event) return FALSE;
    // An addition of 0 instead of a load: it orders the caller's earlier writes before the reset of a thread that finds
    // the event set by this call.
    const bool isSet = (event->head->word.fetch_add(0, std::memory_order_acq_rel) & kSet) != 0;
    if (isSet && !event->named) return TRUE;
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
    // No wait begins at a set event, so a pulse only resets it. Otherwise the word moves to the next even value, which
    // releases the waiters. A set that comes in between stays: it came after the pulse.
    event->head->word.fetch_add(0, std::memory_order_acq_rel);
    const bool wasSet = Clear(*event.Get());
    if (wasSet && !event->named) return TRUE;
    return Written(AddAndWakeAll(event->head->word, wasSet ? 0 : 2, event->named));
}

BOOL WINAPI OrielEventPosition(HANDLE handle, DWORD* position, BOOL* isSet) {
    HandleUse<NamedObject> event(handle, kEventType, SYNCHRONIZE);
    if (!event) return FALSE;
    if (!IsManual(event.Get())) return Fail(ERROR_INVALID_HANDLE);
    const uint32_t now = event->head->word.load(std::memory_order_acquire);
    *isSet = (now & kSet) != 0;
    *position = now + (now & kSet); // where a reset would leave it
    return TRUE;
}

HANDLE WINAPI OrielStepInWait(HANDLE event, HANDLE signal, ORIEL_WAIT_STEP step, void* context) {
    HandleUse<EventObject> waitedFor(event, kEventType, SYNCHRONIZE);
    if (!waitedFor) return nullptr;
    HandleUse<NamedObject> signals(signal, kEventType, SYNCHRONIZE);
    if (!signals) return nullptr;
    if (step == nullptr || signals.Get() == waitedFor.Get()) return Fail(ERROR_INVALID_PARAMETER, nullptr);
    auto* made = new (std::nothrow) StepObject{{&kStepType}, waitedFor.Get(), signals.Get(), step, context};
    if (made == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    {
        const LockHold hold(waitedFor->lock);
        StepObject* none = nullptr;
        if (!waitedFor->step.compare_exchange_strong(none, made)) {
            delete made;
            return Fail(ERROR_ALREADY_EXISTS, nullptr);
        }
        made->event->references.fetch_add(1, std::memory_order_relaxed);
        made->signal->references.fetch_add(1, std::memory_order_relaxed);
    }
    WakeAll(made->event->head->word, made->event->named); // waits that have begun follow it too
    return NewHandle(made, 0);
}

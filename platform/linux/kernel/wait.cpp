// Waits for objects, also from an earlier position, and Sleep. No state.
//
// A wait looks at each object in turn, lowest index first. Then it sleeps on the words of all objects and on the state
// word of the thread until one changes, and looks again. It allocates nothing, and sets the last error only on failure.
#include "base/timings.h"
#include "kernel/handles.h"
#include "kernel/thread.h"

#include <algorithm>
#include <ctime>
#include <errhandlingapi.h>
#include <oriel_wait.h>
#include <sched.h>
#include <synchapi.h>

namespace oriel {
namespace {

DWORD FailWait(DWORD error) {
    SetLastError(error);
    return WAIT_FAILED;
}

// Keeps the objects of a wait alive, even if another thread closes their handles.
struct Waiting {
    TerminationHold hold;
    HandlePin* const pins;
    WaitPoint* const points;
    uint32_t count = 0;

    Waiting(HandlePin* pinRoom, WaitPoint* pointRoom) : pins(pinRoom), points(pointRoom) {}
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
    ~Waiting() {
        for (uint32_t i = 0; i < count; ++i) {
            if (points[i].signal != nullptr) DropReference(points[i].signal);
            UnpinHandle(pins[i]);
        }
    }
    DWORD Pin(HANDLE handle, DWORD position = ORIEL_FROM_NOW) {
        const HandlePin pin = PinHandle(handle);
        if (pin.object == nullptr) return ERROR_INVALID_HANDLE;
        pins[count++] = pin;
        if (position != ORIEL_FROM_NOW) {
            const auto remembers = pin.object->type->remembers;
            if (remembers == nullptr || !remembers(pin.object)) return ERROR_INVALID_PARAMETER;
            points[count - 1].begun = true;
            points[count - 1].from = true;
            points[count - 1].first = position;
        }
        if (pin.object->type->grab == nullptr) return ERROR_INVALID_HANDLE;
        return (pin.access & SYNCHRONIZE) != 0 ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
    }
};

// The result for the first object that is free, or WAIT_TIMEOUT.
DWORD LookAtAll(Waiting& waiting, bool goingToSleep) {
    for (uint32_t i = 0; i < waiting.count; ++i) {
        Object* object = waiting.pins[i].object;
        switch (object->type->grab(object, waiting.points[i], goingToSleep)) {
        case Grab::Busy:
            break;
        case Grab::Got:
            return WAIT_OBJECT_0 + i;
        case Grab::Abandoned:
            return WAIT_ABANDONED_0 + i;
        case Grab::LimitReached:
            return FailWait(ERROR_MUTANT_LIMIT_EXCEEDED);
        case Grab::Failed:
            return FailWait(ERROR_NO_SYSTEM_RESOURCES);
        }
    }
    return WAIT_TIMEOUT;
}

// Adds the state word of the thread as the last point. A thread without a record cannot be terminated.
uint32_t AddOwnWord(SleepPoint* points, uint32_t count) {
    if (t_terminationWord == nullptr) return count;
    points[count] = {t_terminationWord, kRunning, false};
    return count + 1;
}

// An owner is mostly killed after a short wait for it, and its death should not lengthen the wait much: looks begin
// close together, and are later an eighth of the wait apart. begun: 0 at the first look.
int64_t NextLook(int64_t& begun) {
    const int64_t now = MonotonicNs();
    if (begun == 0) begun = now;
    return now + std::clamp((now - begun) / 8, g_timings.mutexFirstLook * kNsPerMs, g_timings.mutexLook * kNsPerMs);
}

// Of a thread that is awake again: other processes have had the caches and translations since it fell asleep, so all
// that it needs is fetched side by side, not one after the other when it is asked for.
void PrefetchAll(const Waiting& waiting) {
    __builtin_prefetch(t_terminationWord);
    for (uint32_t i = 0; i < waiting.count; ++i)
        PrefetchPin(waiting.pins[i]);
}

// Whether the event of that point, which ended the sleep, does not stand where the wait began. It is released without a
// look at the other objects.
bool HasMoved(const Waiting& waiting, uint32_t woken) {
    if (woken >= waiting.count || !waiting.points[woken].from) return false;
    return waiting.points[woken].word->load(std::memory_order_acquire) != waiting.points[woken].first;
}

// most: sleep points on the stack.
template <uint32_t most>
[[gnu::noinline]] DWORD SleepOnAll(Waiting& waiting, int64_t deadline) {
    SleepPoint points[most];
    int64_t begun = 0;
    for (;;) {
        bool looks = false;
        for (uint32_t i = 0; i < waiting.count; ++i) {
            const WaitPoint& point = waiting.points[i];
            points[i] = {point.word, point.value, point.shared};
            looks |= point.looks;
        }
        const int64_t slice = looks ? NextLook(begun) : kNever;
        uint32_t count = AddOwnWord(points, waiting.count);
        for (uint32_t i = 0; i < waiting.count && count < most; ++i) // without room, others do the steps
            if (waiting.points[i].signal != nullptr) points[count++] = waiting.points[i].signalled;
        uint32_t woken = most;
        const Awake awake = SleepOn(points, count, std::min(deadline, slice), &woken);
        PrefetchAll(waiting);
        if (awake == Awake::Look && HasMoved(waiting, woken)) return WAIT_OBJECT_0 + woken;
        if (awake == Awake::Failed) return FailWait(ERROR_NOACCESS); // another process truncated a file
        // The thread stops at the end of the outermost call, so nobody sees this result.
        if (TerminationAsked()) return FailWait(ERROR_NO_SYSTEM_RESOURCES);
        // A last look follows even the deadline: an object may have become free just before.
        const bool over = awake == Awake::TimedOut && deadline <= slice;
        const DWORD result = LookAtAll(waiting, !over);
        if (result != WAIT_TIMEOUT || over) return result;
    }
}

DWORD Wait(Waiting& waiting, DWORD milliseconds) {
    const DWORD result = LookAtAll(waiting, milliseconds != 0);
    if (result != WAIT_TIMEOUT || milliseconds == 0) return result;
    const int64_t deadline = DeadlineAfter(milliseconds);
    return waiting.count < kFewSleepPoints ? SleepOnAll<kFewSleepPoints>(waiting, deadline)
                                           : SleepOnAll<kMaxSleepPoints>(waiting, deadline);
}

} // namespace
} // namespace oriel

using namespace oriel;

DWORD WINAPI WaitForSingleObject(HANDLE object, DWORD milliseconds) {
    HandlePin pin;
    WaitPoint point;
    Waiting waiting(&pin, &point);
    const DWORD error = waiting.Pin(object);
    return error != ERROR_SUCCESS ? FailWait(error) : Wait(waiting, milliseconds);
}

namespace {

template <DWORD most>
[[gnu::noinline]] DWORD WaitForUpTo(DWORD count, const HANDLE* objects, const DWORD* positions, DWORD milliseconds) {
    HandlePin pins[most];
    WaitPoint points[most];
    Waiting waiting(pins, points);
    for (DWORD i = 0; i < count; ++i) {
        const DWORD error = waiting.Pin(objects[i], positions != nullptr ? positions[i] : ORIEL_FROM_NOW);
        if (error != ERROR_SUCCESS) return FailWait(error);
    }
    return Wait(waiting, milliseconds);
}

// positions: null for a wait that begins now.
DWORD WaitForAny(DWORD count, const HANDLE* objects, const DWORD* positions, DWORD milliseconds) {
    constexpr DWORD kFew = kFewSleepPoints - 1; // and the thread's word
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || objects == nullptr) return FailWait(ERROR_INVALID_PARAMETER);
    return count <= kFew ? WaitForUpTo<kFew>(count, objects, positions, milliseconds)
                         : WaitForUpTo<MAXIMUM_WAIT_OBJECTS>(count, objects, positions, milliseconds);
}

} // namespace

DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* objects, BOOL waitAll, DWORD milliseconds) {
    if (waitAll) return FailWait(ERROR_NOT_SUPPORTED);
    return WaitForAny(count, objects, nullptr, milliseconds);
}

DWORD WINAPI OrielWaitFrom(DWORD count, const HANDLE* objects, const DWORD* positions, DWORD milliseconds) {
    return WaitForAny(count, objects, positions, milliseconds);
}

void WINAPI Sleep(DWORD milliseconds) {
    if (milliseconds == 0) {
        sched_yield();
        return;
    }
    TerminationHold hold;
    const int64_t deadline = DeadlineAfter(milliseconds);
    constinit static Word never{0};
    SleepPoint points[2] = {{&never, 0, false}};
    const uint32_t count = AddOwnWord(points, 1);
    while (!TerminationAsked() && SleepOn(points, count, deadline) == Awake::Look)
        continue;
}

DWORD WINAPI GetTickCount() {
    // As on Windows, time in suspend counts.
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<DWORD>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                              static_cast<uint64_t>(now.tv_nsec) / 1'000'000);
}

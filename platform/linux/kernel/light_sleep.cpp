// OrielSleepFrom and OrielRouse. No state but in the records of threads.
//
// To sleep on several words costs a thread a third more at each wake than to sleep on one. So here it sleeps on the
// word of the event alone. Whoever wants it to notice something else says so (`roused`, or the state word of the
// thread), and then wakes the word until the thread has begun another look:
//
//   the sleeper   moves its turn; looks at what may be said; sleeps
//   the rouser    says it; reads the turn; wakes the word until the turn has moved
//
// A look that did not see what was said came before it was said, so its turn is the one that the rouser has read, and
// the rouser stays until the thread has looked again. The wake changes nothing, so it may reach others who sleep on the
// word, in vain; threads have different bits to make that few.
#include "base/call.h"
#include "kernel/thread.h"

#include <algorithm>
#include <errhandlingapi.h>
#include <oriel_wait.h>
#include <synchapi.h>

namespace oriel {
namespace {

constexpr int64_t kFirstPauseNs = 20'000;
constexpr int64_t kLongestPauseNs = 5 * kNsPerMs;
constexpr int64_t kRouseBoundNs = 1000 * kNsPerMs;

uint32_t BitOf(const ThreadObject& thread) {
    return 1U << (thread.threadId.load(std::memory_order_relaxed) % 32);
}

bool TakeRouse(ThreadObject& self) {
    return self.roused.load() && self.roused.exchange(false);
}

bool HasMoved(const WaitPoint& point) {
    return point.word->load(std::memory_order_acquire) != point.first;
}

DWORD SleepUntilItMoves(ThreadObject& self, const HandlePin& pin, const WaitPoint& point, int64_t deadline) {
    for (;;) {
        self.turn.fetch_add(2);
        if (TakeRouse(self)) return ORIEL_WAIT_ROUSED;
        if (TerminationAsked())
            return Fail(ERROR_NO_SYSTEM_RESOURCES, DWORD{WAIT_FAILED}); // it stops at the end of the call
        const Awake awake = SleepOnShared({point.word, point.first, true}, deadline, BitOf(self));
        PrefetchPin(pin);
        if (HasMoved(point)) return WAIT_OBJECT_0;
        if (awake == Awake::TimedOut) return WAIT_TIMEOUT;
        if (awake == Awake::Failed) return Fail(ERROR_NOACCESS, DWORD{WAIT_FAILED}); // another process truncated a file
    }
}

DWORD SleepFrom(ThreadObject& self, const HandlePin& pin, DWORD position, DWORD milliseconds) {
    const ObjectType& type = *pin.object->type;
    if (type.grab == nullptr) return Fail(ERROR_INVALID_HANDLE, DWORD{WAIT_FAILED});
    if (position == ORIEL_FROM_NOW || type.remembers == nullptr || !type.remembers(pin.object))
        return Fail(ERROR_INVALID_PARAMETER, DWORD{WAIT_FAILED});
    if ((pin.access & SYNCHRONIZE) == 0) return Fail(ERROR_ACCESS_DENIED, DWORD{WAIT_FAILED});
    if (TakeRouse(self)) return ORIEL_WAIT_ROUSED; // before the event, which may move all the time
    WaitPoint point;
    point.begun = true;
    point.first = position;
    if (type.grab(pin.object, point, false) == Grab::Got) return WAIT_OBJECT_0;
    if (!point.shared) return Fail(ERROR_INVALID_PARAMETER, DWORD{WAIT_FAILED});
    self.sleepsOn.store(point.word);
    self.turn.fetch_add(1);
    const DWORD result = SleepUntilItMoves(self, pin, point, DeadlineAfter(milliseconds));
    self.turn.fetch_add(1);
    return result;
}

} // namespace

void Rouse(ThreadObject& thread, int64_t deadline) {
    const uint32_t turn = thread.turn.load();
    if (turn % 2 == 0) return;
    for (int64_t pause = kFirstPauseNs; thread.turn.load() == turn && thread.ended.load() == 0; pause *= 2) {
        WakeSome(*thread.sleepsOn.load(), BitOf(thread));
        const int64_t now = MonotonicNs();
        if (now >= deadline) return;
        const SleepPoint same{&thread.turn, turn, false};
        SleepOn(&same, 1, std::min(deadline, now + std::min(pause, kLongestPauseNs)));
    }
}

} // namespace oriel

using namespace oriel;

DWORD WINAPI OrielSleepFrom(HANDLE event, DWORD position, DWORD milliseconds) {
    const TerminationHold hold;
    ThreadObject* self = CurrentThread();
    if (self == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{WAIT_FAILED});
    const HandlePin pin = PinHandle(event);
    if (pin.object == nullptr) return Fail(ERROR_INVALID_HANDLE, DWORD{WAIT_FAILED});
    const DWORD result = SleepFrom(*self, pin, position, milliseconds);
    UnpinHandle(pin);
    return result;
}

BOOL WINAPI OrielRouse(HANDLE handle) {
    HandleUse<ThreadObject> thread(handle, kThreadType, 0);
    if (!thread) return FALSE;
    thread->roused.store(true);
    Rouse(*thread.Get(), MonotonicNs() + kRouseBoundNs);
    return TRUE;
}

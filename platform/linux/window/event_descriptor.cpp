// Descriptors for events: an eventfd each, and one thread of the layer that waits for all events.
//
// State: the table, under its lock. The thread runs while a descriptor exists. It copies the table at the start of a
// round, and a change of the table ends the round. It waits through its own handles, so callers may close theirs.
#include "base/call.h"
#include "base/lock.h"
#include "base/steps.h"
#include "kernel/handles.h"
#include "kernel/thread.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <errhandlingapi.h>
#include <handleapi.h>
#include <oriel_poll.h>
#include <synchapi.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

namespace oriel {
namespace {

static_assert(ORIEL_MAX_EVENT_DESCRIPTORS + 1 == MAXIMUM_WAIT_OBJECTS);

struct WatchedEvent {
    int descriptor;
    HANDLE event;
    bool armed;
    bool broken; // it can no longer be waited for
};

// Never destroyed: the thread may run while the process exits.
struct EventTable {
    Lock lock;
    std::vector<WatchedEvent> events ORIEL_LOCK_CHECK(guarded_by(lock));
    HANDLE changed ORIEL_LOCK_CHECK(guarded_by(lock)) = nullptr; // ends a round
    bool running ORIEL_LOCK_CHECK(guarded_by(lock)) = false;
    Word rounds{0};
};

EventTable& Table() {
    static EventTable& table = *new EventTable;
    return table;
}

struct Round {
    DWORD count = 0;
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    int descriptors[MAXIMUM_WAIT_OBJECTS];
};

// False when there is nothing left to wait for.
bool BeginRound(EventTable& table, Round& round) {
    const LockHold hold(table.lock);
    table.running = !table.events.empty();
    round.count = 0;
    round.handles[round.count++] = table.changed;
    for (const WatchedEvent& watched : table.events) {
        if (!watched.armed) continue;
        round.descriptors[round.count] = watched.descriptor;
        round.handles[round.count++] = watched.event;
    }
    table.rounds.fetch_add(1);
    WakeAll(table.rounds, false);
    return table.running;
}

void Report(EventTable& table, int descriptor, bool broken) {
    const LockHold hold(table.lock);
    for (WatchedEvent& watched : table.events) {
        if (watched.descriptor != descriptor || !watched.armed) continue;
        watched.armed = false;
        watched.broken = broken;
        eventfd_write(descriptor, 1);
    }
}

void* WatchEvents(void*) {
    EventTable& table = Table();
    Round round;
    while (BeginRound(table, round)) {
        const DWORD result = WaitForMultipleObjects(round.count, round.handles, FALSE, INFINITE);
        if (result < WAIT_OBJECT_0 + round.count) {
            if (result != WAIT_OBJECT_0) Report(table, round.descriptors[result - WAIT_OBJECT_0], false);
            continue;
        }
        // One of them is broken, such as a named event whose file another user truncated: find out which.
        for (DWORD i = 1; i < round.count; ++i) {
            const DWORD state = WaitForSingleObject(round.handles[i], 0);
            if (state != WAIT_TIMEOUT) Report(table, round.descriptors[i], state == WAIT_FAILED);
        }
    }
    return nullptr;
}

// A fork child does not have the thread, and the handles are not its own.
void ForgetParentsEvents() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    EventTable& table = Table();
    for (const WatchedEvent& watched : table.events)
        close(watched.descriptor);
    table.events.clear();
    table.changed = nullptr;
    table.running = false;
    table.lock.ForgetOwner();
}

// Duplicates the caller's event for the layer.
HANDLE DuplicateEvent(HANDLE event) {
    const HandlePin pin = PinHandle(event);
    if (pin.object == nullptr || std::strcmp(pin.object->type->name, "event") != 0) {
        if (pin.object != nullptr) UnpinHandle(pin);
        return Fail(ERROR_INVALID_HANDLE, nullptr);
    }
    HANDLE own = nullptr;
    if ((pin.access & SYNCHRONIZE) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
    } else {
        pin.object->references.fetch_add(1);
        own = NewHandle(pin.object, pin.access);
    }
    UnpinHandle(pin);
    return own;
}

// ERROR_SUCCESS, or why the table cannot watch.
DWORD StartWatching(EventTable& table) ORIEL_LOCK_CHECK(requires_capability(table.lock)) {
    if (table.events.size() >= ORIEL_MAX_EVENT_DESCRIPTORS) return ERROR_NOT_ENOUGH_QUOTA;
    table.events.reserve(ORIEL_MAX_EVENT_DESCRIPTORS);
    if (table.changed == nullptr) table.changed = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (table.changed == nullptr) return GetLastError();
    const int error = table.running ? 0 : StartThread(kOwnStackSize, WatchEvents, nullptr);
    return error == 0 ? ERROR_SUCCESS : SystemError(error);
}

} // namespace

constinit const ForkSteps kEventDescriptorsFork{
    []() ORIEL_LOCK_CHECK(no_thread_safety_analysis) { Table().lock.Acquire(); },
    []() ORIEL_LOCK_CHECK(no_thread_safety_analysis) { Table().lock.Release(); }, ForgetParentsEvents};

} // namespace oriel

using namespace oriel;

int WINAPI OrielEventDescriptor(HANDLE event) {
    return Call(-1, [=] {
        WatchForFork();
        const HANDLE own = DuplicateEvent(event);
        if (own == nullptr) return -1;
        const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        DWORD error = descriptor >= 0 ? ERROR_SUCCESS : SystemError(errno);
        if (error == ERROR_SUCCESS) {
            EventTable& table = Table();
            const LockHold hold(table.lock);
            error = StartWatching(table);
            if (error == ERROR_SUCCESS) {
                table.running = true;
                table.events.push_back({descriptor, own, true, false});
                SetEvent(table.changed);
                return descriptor;
            }
        }
        CloseHandle(own);
        if (descriptor >= 0) close(descriptor);
        return Fail(error, -1);
    });
}

BOOL WINAPI OrielRearmEventDescriptor(int descriptor) {
    return Call<BOOL>(FALSE, [=] {
        EventTable& table = Table();
        const LockHold hold(table.lock);
        for (WatchedEvent& watched : table.events) {
            if (watched.descriptor != descriptor || watched.broken) continue;
            eventfd_t count = 0;
            eventfd_read(descriptor, &count);
            watched.armed = true;
            SetEvent(table.changed);
            return TRUE;
        }
        return Fail(ERROR_INVALID_HANDLE);
    });
}

BOOL WINAPI OrielCloseEventDescriptor(int descriptor) {
    return Call<BOOL>(FALSE, [=] {
        EventTable& table = Table();
        HANDLE event = nullptr;
        uint32_t round = 0;
        {
            const LockHold hold(table.lock);
            const auto found = std::find_if(table.events.begin(), table.events.end(), [=](const WatchedEvent& watched) {
                return watched.descriptor == descriptor;
            });
            if (found == table.events.end()) return Fail(ERROR_INVALID_HANDLE);
            event = found->event;
            table.events.erase(found);
            round = table.rounds.load();
            SetEvent(table.changed);
        }
        // The thread may use the handle until it begins another round. It only waits, so this needs no bound.
        const SleepPoint nextRound{&table.rounds, round, false};
        while (table.rounds.load() == round)
            SleepOn(&nextRound, 1, kNever);
        CloseHandle(event);
        close(descriptor);
        return TRUE;
    });
}

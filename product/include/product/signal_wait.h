// What a watcher waits for: the event that ends it, events that others pulse, and the start of a service. No pulse is
// lost between two waits where the system remembers them (signal_wait_linux.cpp). Elsewhere a wait ends a few times by
// itself after each pulse (signal_wait_windows.cpp), so a watcher compares counts whenever a wait has ended. No state.
#pragma once

#include "product/guards.h"

#include <windows.h>

namespace product {

enum class Woken {
    Stopped,
    Signalled, // look at all events
    Started,   // a service has started; look at all events too
    TimedOut,
    Failed
};

// What happened to an event since it was last asked for.
struct Signals {
    DWORD pulses;       // of which several may be one where the system does not count them
    bool isSet;         // it is still set: somebody left it so
    bool mayHaveMissed; // pulses: the system does not remember them
};

// Whoever waits for `event` in this process calls step(context) when `signal` is signalled (oriel_wait.h), until the
// handle is closed. Null where the system has no such thing, or the event has a step already.
KernelHandle StepInWait(HANDLE event, HANDLE signal, void(WINAPI* step)(void*), void* context);

// Whether a wait can be roused, and so be a light one: Rouse makes the thread look at what it does not sleep on.
bool WaitsCanBeRoused();
void Rouse(HANDLE thread);

class SignalWait {
public:
    static constexpr DWORD kEventsMax = MAXIMUM_WAIT_OBJECTS - 1;

    // The handles belong to the caller. stop may be null.
    explicit SignalWait(HANDLE stop) : m_handles{stop} { InitializeCriticalSection(&m_turn); }
    ~SignalWait() { DeleteCriticalSection(&m_turn); }
    SignalWait(const SignalWait&) = delete;
    SignalWait& operator=(const SignalWait&) = delete;

    // Other threads than the one that waits may take signals too, in turn, once that one has shared the wait. While one
    // has the turn no wait begins, so a wait misses nothing of what that thread took and gave back.
    void Share() { m_isShared = true; }
    struct IfFree {};
    class Turn {
    public:
        explicit Turn(SignalWait& wait) : m_wait(wait), held(wait.m_isShared) {
            if (held) EnterCriticalSection(&wait.m_turn);
        }
        // Without a wait for it: see held.
        Turn(SignalWait& wait, IfFree) : m_wait(wait), held(TryEnterCriticalSection(&wait.m_turn) != FALSE) {}
        ~Turn() {
            if (held) LeaveCriticalSection(&m_wait.m_turn);
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        SignalWait& m_wait;

    public:
        const bool held;
    };

    // Whoever sets the stop event then calls Rouse for the thread that waits, and so does somebody when a service
    // starts. So a wait for one event may be for that alone.
    void SetRoused() { m_isRoused = true; }

    // The event of that number, from 0, from now on. Null: none, which is never signalled.
    void SetEvent(DWORD number, HANDLE event);
    // Pulsed by each service that starts. Waited for while fewer than kEventsMax events are.
    void SetStarted(HANDLE event);

    Woken Wait(DWORD milliseconds);
    Signals Take(DWORD number);
    void GiveBack(DWORD number, const Signals& taken);

private:
    DWORD Gather(HANDLE* handles, DWORD* positions) const;
    Woken WaitLightly(DWORD milliseconds);
    Woken WaitForAll(DWORD milliseconds);

    CRITICAL_SECTION m_turn; // for all that follows
    bool m_isShared = false; // of the thread that waits
    bool m_isRoused = false;
    HANDLE m_handles[1 + kEventsMax];
    DWORD m_positions[1 + kEventsMax] = {};
    DWORD m_count = 1; // of the handles
    HANDLE m_started = nullptr;
    [[maybe_unused]] DWORD m_startedPosition = 0;
    [[maybe_unused]] bool m_isToRest = true; // before the next wait: what came before may have been deep
    [[maybe_unused]] bool m_rests = false;   // nothing has come since the last wait ended by its time
    [[maybe_unused]] DWORD m_repeats = 0;    // waits that ended by themselves since the last pulse
};

} // namespace product

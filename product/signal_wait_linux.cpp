// Our system's events have positions, and a wait begins at the one that was last looked at. No state.
#include "product/signal_wait.h"

#include <oriel_wait.h>

namespace product {

namespace {

struct Position {
    DWORD at = ORIEL_FROM_NOW;
    BOOL isSet = FALSE;

    explicit Position(HANDLE event) {
        if (!OrielEventPosition(event, &at, &isSet)) at = ORIEL_FROM_NOW;
    }
};

} // namespace

KernelHandle StepInWait(HANDLE event, HANDLE signal, void(WINAPI* step)(void*), void* context) {
    return KernelHandle(OrielStepInWait(event, signal, step, context));
}

void SignalWait::SetEvent(DWORD number, HANDLE event) {
    while (m_count <= number + 1)
        m_handles[m_count++] = nullptr;
    m_handles[number + 1] = event;
    m_positions[number + 1] = event ? Position(event).at : ORIEL_FROM_NOW;
}

void SignalWait::SetStarted(HANDLE event) {
    m_started = event;
    m_startedPosition = event ? Position(event).at : ORIEL_FROM_NOW;
}

DWORD SignalWait::Gather(HANDLE* handles, DWORD* positions) const {
    DWORD count = 0;
    for (DWORD i = 0; i < m_count; ++i) {
        if (!m_handles[i]) continue;
        handles[count] = m_handles[i];
        positions[count++] = i == 0 ? ORIEL_FROM_NOW : m_positions[i];
    }
    if (m_started && count < MAXIMUM_WAIT_OBJECTS) {
        handles[count] = m_started;
        positions[count++] = m_startedPosition;
    }
    return count;
}

bool WaitsCanBeRoused() {
    return true;
}

void Rouse(HANDLE thread) {
    OrielRouse(thread);
}

// Roused without a reason that is seen here counts as a time-out: look at everything.
Woken SignalWait::WaitLightly(DWORD milliseconds) {
    DWORD position = 0;
    {
        const Turn turn(*this);
        position = m_positions[1];
    }
    const DWORD result = OrielSleepFrom(m_handles[1], position, milliseconds);
    if (result == WAIT_OBJECT_0) return Woken::Signalled;
    if (result == WAIT_FAILED) return Woken::Failed;
    if (m_handles[0] && WaitForSingleObject(m_handles[0], 0) == WAIT_OBJECT_0) return Woken::Stopped;
    if (!m_started || Position(m_started).at == m_startedPosition) return Woken::TimedOut;
    SetStarted(m_started);
    return Woken::Started;
}

Woken SignalWait::Wait(DWORD milliseconds) {
    if (m_isToRest) OrielRestThread();
    m_isToRest = false;
    const bool isLight = m_isRoused && m_count == 2 && m_handles[1] && m_positions[1] != ORIEL_FROM_NOW;
    const Woken woken = isLight ? WaitLightly(milliseconds) : WaitForAll(milliseconds);
    const bool timedOut = woken == Woken::TimedOut;
    m_isToRest = timedOut && !m_rests;
    m_rests = timedOut;
    return woken;
}

Woken SignalWait::WaitForAll(DWORD milliseconds) {
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    DWORD positions[MAXIMUM_WAIT_OBJECTS];
    DWORD count = 0;
    {
        const Turn turn(*this);
        count = Gather(handles, positions);
    }
    const DWORD result = OrielWaitFrom(count, handles, positions, milliseconds);
    if (result == WAIT_TIMEOUT) return Woken::TimedOut;
    if (result >= WAIT_OBJECT_0 + count) return Woken::Failed;
    const HANDLE woken = handles[result - WAIT_OBJECT_0];
    if (woken == m_handles[0]) return Woken::Stopped;
    if (woken != m_started) return Woken::Signalled;
    SetStarted(m_started);
    return Woken::Started;
}

Signals SignalWait::Take(DWORD number) {
    DWORD& last = m_positions[number + 1];
    if (!m_handles[number + 1]) return {0, false, false};
    const Position now(m_handles[number + 1]);
    if (now.at == ORIEL_FROM_NOW) return {0, false, false};
    const DWORD pulses = (now.at - last) / 2;
    last = now.at;
    return {pulses, now.isSet != FALSE, false};
}

void SignalWait::GiveBack(DWORD number, const Signals& taken) {
    m_positions[number + 1] -= 2 * taken.pulses;
}

} // namespace product

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

Woken SignalWait::Wait(DWORD milliseconds) {
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    DWORD positions[MAXIMUM_WAIT_OBJECTS];
    DWORD count = 0;
    {
        const Turn turn(*this);
        count = Gather(handles, positions);
    }
    if (m_isToRest) OrielRestThread();
    m_isToRest = false;
    const DWORD result = OrielWaitFrom(count, handles, positions, milliseconds);
    if (result == WAIT_TIMEOUT) {
        m_isToRest = !m_rests;
        m_rests = true;
        return Woken::TimedOut;
    }
    m_rests = false;
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

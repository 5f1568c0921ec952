// A pulse reaches only threads that wait. So a watcher that was busy is woken again a few times after each pulse, ever
// later, and compares counts. No state.
#include "product/signal_wait.h"

#include <algorithm>

namespace product {

namespace {

// Pauses of 10, 20, 40 ... ms, about 5 s together.
constexpr DWORD kFirstPauseMs = 10;
constexpr DWORD kRepeats = 9;
constexpr DWORD kSignalled = 1; // in a position: a wait ended with the event

} // namespace

KernelHandle StepInWait(HANDLE, HANDLE, void(WINAPI*)(void*), void*) {
    return {};
}

bool WaitsCanBeRoused() {
    return false;
}

void Rouse(HANDLE) {}

void SignalWait::SetEvent(DWORD number, HANDLE event) {
    while (m_count <= number + 1)
        m_handles[m_count++] = nullptr;
    m_handles[number + 1] = event;
    m_positions[number + 1] = 0;
    m_repeats = 0;
}

void SignalWait::SetStarted(HANDLE event) {
    m_started = event;
}

DWORD SignalWait::Gather(HANDLE* handles, DWORD* positions) const {
    DWORD count = 0;
    for (DWORD i = 0; i < m_count; ++i) {
        if (!m_handles[i]) continue;
        handles[count] = m_handles[i];
        positions[count++] = i;
    }
    if (m_started && count < MAXIMUM_WAIT_OBJECTS) handles[count++] = m_started;
    return count;
}

Woken SignalWait::Wait(DWORD milliseconds) {
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    DWORD numbers[MAXIMUM_WAIT_OBJECTS];
    const DWORD count = Gather(handles, numbers);
    const DWORD pause = m_repeats < kRepeats ? kFirstPauseMs << m_repeats : INFINITE;
    const DWORD result = WaitForMultipleObjects(count, handles, FALSE, std::min(milliseconds, pause));
    if (result == WAIT_TIMEOUT) {
        if (milliseconds <= pause) return Woken::TimedOut;
        ++m_repeats;
        return Woken::Signalled;
    }
    if (result >= WAIT_OBJECT_0 + count) return Woken::Failed;
    const DWORD index = result - WAIT_OBJECT_0;
    if (handles[index] == m_handles[0]) return Woken::Stopped;
    m_repeats = 0;
    if (handles[index] == m_started) return Woken::Started;
    m_positions[numbers[index]] = kSignalled;
    return Woken::Signalled;
}

Signals SignalWait::Take(DWORD number) {
    DWORD& position = m_positions[number + 1];
    const Signals signals{position,
                          m_handles[number + 1] && position == kSignalled &&
                              WaitForSingleObject(m_handles[number + 1], 0) == WAIT_OBJECT_0,
                          true};
    position = 0;
    return signals;
}

void SignalWait::GiveBack(DWORD number, const Signals& taken) {
    m_positions[number + 1] = taken.pulses;
}

} // namespace product

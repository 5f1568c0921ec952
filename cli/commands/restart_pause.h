// How long to wait before a process that ended is started again: longer each time, and short again after a long run.
// State: the object's.
#pragma once

#include <windows.h>

#include <algorithm>

class RestartPause {
public:
    // Call at each start, also at one that fails.
    void Began() { m_began = GetTickCount(); }
    // Call when it has ended or could not be started. Returns the pause in milliseconds.
    DWORD AfterEnd() {
        if (GetTickCount() - m_began > kHealthyMs) m_next = kFirstMs;
        const DWORD pause = m_next;
        m_next = std::min(m_next * 2, kLongestMs);
        return pause;
    }

private:
    static constexpr DWORD kFirstMs = 500;
    static constexpr DWORD kLongestMs = 30000;
    static constexpr DWORD kHealthyMs = 60000; // of running

    DWORD m_began = GetTickCount();
    DWORD m_next = kFirstMs;
};

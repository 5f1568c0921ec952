// How long to wait before a process that ended is started again: longer each time, and short again once it ran for
// long.
#pragma once

#include <windows.h>

#include <algorithm>

class RestartPause {
public:
    // It is started now, or that is tried.
    void Began() { m_began = GetTickCount(); }
    // It has ended, or could not be started: the pause, in milliseconds.
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

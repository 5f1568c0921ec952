// How long to wait before a process that ended is started again. One that had run for a while was killed, or met
// something rare: it is back almost at once. One that ends at its start again and again waits longer each
// time.
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
        m_short = GetTickCount() - m_began > kHealthyMs ? 0 : std::min(m_short + 1, kShortMax);
        if (m_short < kShortAtOnce) return kFirstMs;
        return std::min(kLongerMs << (m_short - kShortAtOnce), kLongestMs);
    }

private:
    static constexpr DWORD kFirstMs = 50;
    static constexpr DWORD kHealthyMs = 250; // of running; longer than a start that fails takes
    static constexpr DWORD kShortAtOnce = 8; // short runs in a row
    static constexpr DWORD kLongerMs = 500;  // after so many; then doubled
    static constexpr DWORD kLongestMs = 30000;
    static constexpr DWORD kShortMax = 16;

    DWORD m_began = GetTickCount();
    DWORD m_short = 0;
};

// A critical section with its guard, for clang's lock analysis (product/lock_analysis.h):
//
//     Lock g_lock;
//     Record* g_first GUARDED_BY(g_lock) = nullptr;
//     LockHold hold{g_lock};
//
// Any thread may take a lock again that it holds. Nothing here fails. No state.
#pragma once

#include "product/lock_analysis.h"

#include <windows.h>

class CAPABILITY("lock") Lock {
public:
    Lock() { InitializeCriticalSection(&m_section); }
    ~Lock() { DeleteCriticalSection(&m_section); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void Enter() ACQUIRE() NO_LOCK_ANALYSIS { EnterCriticalSection(&m_section); }
    void Leave() RELEASE() NO_LOCK_ANALYSIS { LeaveCriticalSection(&m_section); }

private:
    CRITICAL_SECTION m_section;
};

class SCOPED_CAPABILITY LockHold {
public:
    explicit LockHold(Lock& lock) ACQUIRE(lock) : m_lock(lock) { m_lock.Enter(); }
    ~LockHold() RELEASE() { m_lock.Leave(); }
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;

private:
    Lock& m_lock;
};

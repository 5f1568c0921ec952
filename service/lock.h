// Critical sections with a guard. clang's lock analysis sees them where the platform's header offers it.
#pragma once

#include <windows.h>

#ifdef ORIEL_LOCK_CHECK
#define LOCK_CHECK(attribute) ORIEL_LOCK_CHECK(attribute)
#else
#define LOCK_CHECK(attribute)
#endif
#define GUARDED_BY(lock) LOCK_CHECK(guarded_by(lock))
#define NEEDS(lock) LOCK_CHECK(requires_capability(lock))
#define UNCHECKED_LOCKS LOCK_CHECK(no_thread_safety_analysis)

class LOCK_CHECK(capability("lock")) Lock {
public:
    Lock() { InitializeCriticalSection(&m_section); }
    ~Lock() { DeleteCriticalSection(&m_section); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void Enter() LOCK_CHECK(acquire_capability()) UNCHECKED_LOCKS { EnterCriticalSection(&m_section); }
    void Leave() LOCK_CHECK(release_capability()) UNCHECKED_LOCKS { LeaveCriticalSection(&m_section); }

private:
    CRITICAL_SECTION m_section;
};

class LOCK_CHECK(scoped_lockable) LockHold {
public:
    explicit LockHold(Lock& lock) LOCK_CHECK(acquire_capability(lock)) : m_lock(lock) { m_lock.Enter(); }
    ~LockHold() LOCK_CHECK(release_capability()) { m_lock.Leave(); }
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;

private:
    Lock& m_lock;
};

// State of the process and of the machine, and the scope that every export runs in.
//
// All of it is set up at process attach and taken down at process detach (exports/attach.cpp).
#pragma once

#include "product/lock_analysis.h"

#include <windows.h>

#include <atomic>
#include <stdint.h>

struct ManagerRecord;

// Guards the list of managers, every manager's list of thread records, its printer name, and the one-time build of the
// object security. No thread waits for a named mutex or for another thread while it holds it, but for the moment in
// which one is terminated.
struct CAPABILITY("g_managerLock") ManagerLock {
    CRITICAL_SECTION section;
};
extern ManagerLock g_managerLock;

struct SCOPED_CAPABILITY ManagerLockHold {
    ManagerLockHold() ACQUIRE(g_managerLock) NO_LOCK_ANALYSIS { EnterCriticalSection(&g_managerLock.section); }
    ~ManagerLockHold() RELEASE() NO_LOCK_ANALYSIS { LeaveCriticalSection(&g_managerLock.section); }
    ManagerLockHold(const ManagerLockHold&) = delete;
    ManagerLockHold& operator=(const ManagerLockHold&) = delete;
};

// The open managers of the process, in the order of their opening.
extern ManagerRecord* g_managerList GUARDED_BY(g_managerLock);

// Managers that this process has open.
extern std::atomic<uint32_t> g_openManagerCount;
// Kind bits of every manager that this process opened since it loaded the library.
extern std::atomic<uint32_t> g_processKindMask;
// Rows of the built-in variable table.
extern uint32_t g_variableCount;
// The executable of the status database service is there. Without it every open fails.
extern bool g_installed;
// Kernel objects have names of the global namespace.
extern bool g_terminalServer;

// What all processes that have the library loaded see: 8 bytes, zero when the first one loads it. Changed with the
// Interlocked operations only, and without a lock: a process that is killed keeps its share until the last one is gone.
struct SharedCounters {
    LONG volatile processCount;
    LONG volatile kindMask;
};
static_assert(sizeof(SharedCounters) == 8);
extern SharedCounters* g_sharedCounters;

bool OpenSharedCounters();
void CloseSharedCounters();
void JoinProcessCount();
void LeaveProcessCount();
uint32_t ProcessCount();
uint32_t KindMask();
void AddKindBits(uint32_t bits);
void RemoveKindBits(uint32_t bits);

// The scope of an export. A library that is not attached, be it that its attach failed or that its detach has begun,
// lets nothing in; a detach waits for those who are in.
class LibraryCall {
public:
    LibraryCall();
    ~LibraryCall();
    LibraryCall(const LibraryCall&) = delete;
    LibraryCall& operator=(const LibraryCall&) = delete;

    explicit operator bool() const { return m_attached; }

private:
    bool m_attached;
};

// The same for a thread of the library's that no call waits for: between the two a detach waits for it.
void CountAsCall();
void UncountAsCall();

// False once the detach has begun: whatever waits inside comes to its end.
bool CallsAreLetIn();
// Lets calls in, or no more; whether they were let in before.
bool LetCallsIn(bool attached);
// True when no call is in the library, at the latest after the time given.
bool CallsHaveLeft(DWORD boundMs);

// State of the process and of the machine, and the scope that every export runs in. Set up at process attach and taken
// down at process detach (exports/attach.cpp).
#pragma once

#include "product/lock_analysis.h"

#include <windows.h>

#include <atomic>
#include <stdint.h>

struct ManagerRecord;

// Protects the list of managers, the thread records and the printer name of each manager, and the one-time build of the
// object security. A thread that holds it waits neither for a named mutex nor for another thread, except for the short
// wait that terminates one.
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

// The open managers of the process, in the order in which they were opened.
extern ManagerRecord* g_managerList GUARDED_BY(g_managerLock);

// Managers that this process has open.
extern std::atomic<uint32_t> g_openManagerCount;
// Kind bits of every manager that this process has opened since it loaded the library.
extern std::atomic<uint32_t> g_processKindMask;
// Rows of the built-in variable table.
extern uint32_t g_variableCount;
// The executable of the status database service exists. Every open fails otherwise.
extern bool g_installed;
// Kernel objects have names in the global namespace.
extern bool g_terminalServer;

// Shared by all processes that have the library loaded: 8 bytes, zero when the first process loads it. Changed with
// Interlocked operations only, without a lock. A killed process keeps its share until the last process is gone.
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

// The scope of an export. It is false while the library is not attached: its attach failed, or its detach has begun. A
// detach waits for the calls that are inside.
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

// The same for a thread of the library that nobody waits for: a detach waits for it between the two calls. The pin
// keeps the library loaded until the thread has left its code: an unload meanwhile has its effect at the end of the
// thread.
struct ThreadPin {
    HMODULE module; // null: none
};
// False: it is counted, and not pinned; the detach may have begun.
bool CountAsCall(ThreadPin* pin);
// For a thread that was not started.
void UncountAsCall(const ThreadPin& pin);
// The thread's last call: it holds nothing with a destructor.
[[noreturn]] void UncountAndExitThread(const ThreadPin& pin, DWORD exitCode);

// In a fork child: no call is inside, none is let in, and nothing is open. g_managerLock is free; what it protected
// stays allocated, since threads that do not exist here may have been using it.
void ForgetParent();
// True until a fork child attaches.
bool IsForkChild();
void ForkChildIsAttached();

// False once the detach has begun; long waits inside the library then end.
bool CallsAreLetIn();
// Admits calls, or stops admitting them; returns whether they were admitted before.
bool LetCallsIn(bool attached);
// True when no call is inside the library; waits for that up to the bound.
bool CallsHaveLeft(DWORD boundMs);

// The entry point of the loader, and the order of attach and detach. No other call runs before or after them, with one
// exception that the detach handles: threads may still be inside calls when the process ends. State: that of
// machine/process_state.h.
#include "exports/attach.h"

#include "base/memory.h"
#include "base/system.h"
#include "base/timings.h"
#include "exports/closing.h"
#include "machine/fork.h"
#include "machine/objects.h"
#include "machine/process_state.h"
#include "manager/manager_database.h"
#include "manager/variables.h"
#include "product/client.h"
#include "product/object_names.h"
#include "product/program_names.h"

#include <stdlib.h>

namespace {

constexpr SIZE_T kInitialHeapSize = 32768;

void DestroyHeap() {
    HeapDestroy(g_heap);
    g_heap = nullptr;
}

// Checks whether the product is set up and its service can run at all.
bool FindProduct() {
    InstalledFile service;
    if (!FindInstalledFile(kServiceProgram, service)) return false;
    g_installed = FileExists(service.path);
    return true;
}

TvsManager FirstManager() {
    const ManagerLockHold lock;
    return HandleOf(g_managerList);
}

void CloseAllManagers() {
    while (const TvsManager manager = FirstManager())
        CloseManagerOf(manager);
}

void ForgetAllOfParent() {
    ForgetParent();
    ForgetMappedSections();
}

} // namespace

bool AttachProcess(HINSTANCE module) {
    g_variableCount = CountStatusVariables();
    DisableThreadLibraryCalls(module);
    g_heap = HeapCreate(0, kInitialHeapSize, 0);
    if (g_heap == nullptr) return false;
    // First, because it decides the name of the shared block.
    g_terminalServer = product::MachineIsTerminalServer(g_heap);
    if (!OpenSharedCounters()) {
        DestroyHeap();
        return false;
    }
    if (!FindProduct()) {
        CloseSharedCounters();
        DestroyHeap();
        return false;
    }
    JoinProcessCount();
    InitializeCriticalSection(&g_managerLock.section);
    // A binding that cannot be made shows in the calls.
    BindStatusDatabase();
    FollowForks(ForgetAllOfParent);
    LetCallsIn(true);
    return true;
}

bool AttachForkChild() {
    const ManagerLockHold lock;
    if (!IsForkChild()) return true; // another thread was faster
    FollowForks(ForgetAllOfParent);
    if (!OpenSharedCounters()) return false;
    JoinProcessCount();
    // The loader's own detach is that of the process that loaded the library.
    if (atexit(DetachProcess) != 0) {
        LeaveProcessCount();
        return false;
    }
    LetCallsIn(true);
    ForkChildIsAttached();
    return true;
}

void DetachProcess() {
    if (!LetCallsIn(false)) return; // the attach failed, or the detach is done
    BoundCalls(g_timings.detachCalls, g_timings.detachCall);
    CloseAllManagers();
    // At the end of a process other threads may still be inside calls. They get a moment; after that, what they use
    // stays in place, because the process ends anyway.
    const bool empty = CallsHaveLeft(CallsWereGivenUp() ? g_timings.detachBoundOfStill : g_timings.detachBound);
    CloseAllManagers(); // those whose open was in progress
    RemoveKindBits(g_processKindMask.exchange(0));
    LeaveProcessCount();
    UnfollowForks();
    g_installed = false;
    if (!empty) return;
    UnmapKeptSections();
    CloseSharedCounters();
    FreeObjectSecurity();
    DeleteCriticalSection(&g_managerLock.section);
    DestroyHeap();
    UnbindStatusDatabase();
}

// The entry point: called by the loader when the process loads and unloads the library.

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        return AttachProcess(module);
    case DLL_PROCESS_DETACH:
        DetachProcess();
        return TRUE;
    default:
        return TRUE;
    }
}

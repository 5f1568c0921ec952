// CloseManager. A close has two halves: the call ends what others see of the manager; the last reference releases what
// the record holds. State: the manager's record.
#include "exports/closing.h"

#include "base/memory.h"
#include "base/timings.h"
#include "exports/reopening.h"
#include "manager/printer_list.h"
#include "manager/thread_records.h"
#include "manager/variable_index.h"
#include "notify/relayed_registrations.h"
#include "product/variable_names.h"

namespace {

using names::kTerminateManager;

// A reference to an open manager. Unlike a ManagerCall, the detach may hold one too.
struct ManagerReference {
    explicit ManagerReference(TvsManager handle) {
        const ManagerLockHold lock;
        manager = FindManager(handle);
        if (manager == nullptr) return;
        InterlockedIncrement(&manager->references);
        terminating = (manager->flags & ManagerTerminating) != 0;
    }
    ~ManagerReference() {
        if (manager != nullptr) ReleaseManager(manager);
    }
    ManagerReference(const ManagerReference&) = delete;
    ManagerReference& operator=(const ManagerReference&) = delete;

    ManagerRecord* manager = nullptr;
    bool terminating = false;
};

bool TerminationIsStored(ManagerRecord* manager) {
    uint32_t value = 0;
    DWORD size = 0;
    return ReadVariable(manager->printerDatabase, kTerminateManager, &value, sizeof value, &size) == Answer::Done &&
           value != 0;
}

// The manager that told all managers to terminate closes last, when no other has the database open. Bounded by a
// minute, because one of them may never close.
void AwaitOtherManagers(ManagerRecord* manager) {
    product::DatabaseInfo info;
    for (DWORD poll = 0; poll < g_timings.terminationPolls; ++poll) {
        // A service that does not answer has no database open.
        GetDatabaseInfo(manager->printerDatabase, &info);
        if ((info.openHandles < 2 && g_openManagerCount <= 1) || CallsWereGivenUp()) break;
        Sleep(g_timings.terminationPoll);
    }
    GetDatabaseInfo(manager->masterDatabase, &info);
}

ThreadRecord* TakeThreads(ManagerRecord* manager) {
    const ManagerLockHold lock;
    ThreadRecord* records = manager->registrations;
    manager->registrations = nullptr;
    ThreadRecord* startWatch = manager->startWatch;
    manager->startWatch = nullptr;
    if (startWatch == nullptr) return records;
    startWatch->next = records;
    return startWatch;
}

} // namespace

Status CloseManagerOf(TvsManager handle) {
    const ManagerReference reference(handle);
    ManagerRecord* manager = reference.manager;
    if (manager == nullptr) return TVS_E_HANDLE;
    // Without a lock, so that the other managers can close.
    if (reference.terminating && TerminationIsStored(manager)) AwaitOtherManagers(manager);
    if (!UnlinkManager(manager)) return TVS_E_HANDLE; // another thread was faster

    // What others see of the manager ends here. The last reference releases what the record holds, so that a call in
    // progress keeps its databases and a mutex that it may hold.
    StopThreadRecords(TakeThreads(manager));
    CancelRelayedRegistrations(manager);
    if ((manager->flags & ManagerOwnsPrinter) != 0) ReleasePrinterOwnership(manager);
    --g_openManagerCount;
    ReleaseManager(manager); // the list's reference
    return TVS_OK;
}

void CloseDatabases(ManagerRecord* manager) {
    CloseDatabases(manager->printerDatabase.handle.exchange(0), manager->masterDatabase.handle.exchange(0));
    ForgetPublished(manager->printerDatabase);
    ForgetPublished(manager->masterDatabase);
}

void DestroyManager(ManagerRecord* manager) {
    CloseDatabases(manager);
    FreeBlock(manager->userName);
    FreeBlock(manager->driverName);
    CloseOwnerEvent(manager); // of an open that failed
    if (manager->databaseMutex != nullptr) CloseHandle(manager->databaseMutex);
    if (manager->requestMutex != nullptr) CloseHandle(manager->requestMutex);
    if (manager->pollingEvent != nullptr) CloseHandle(manager->pollingEvent);
    CloseRetiredMutexes(manager);
    FreeVariables(manager);
    FreeBlock(manager);
}

int32_t TVS_CALL CloseManager(TvsManager manager) {
    const LibraryCall call;
    return call ? CloseManagerOf(manager) : TVS_E_HANDLE;
}

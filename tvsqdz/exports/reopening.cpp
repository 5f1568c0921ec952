// Reopening. State: the manager's record.
#include "exports/reopening.h"

#include "base/memory.h"
#include "base/timings.h"
#include "exports/closing.h"
#include "exports/opening.h"
#include "machine/objects.h"
#include "manager/printer_list.h"
#include "product/guards.h"

#include <string.h>
#include <utility>

// A thread may wait for a mutex, or hold it, when its manager gets another one, so a mutex stays open as long as the
// record.
struct RetiredMutex {
    HANDLE mutex;
    RetiredMutex* next;
};

namespace {

// The record on which a reopening works, so that its steps are those of an open and nobody sees the manager half done.
// The destructor releases what is still in it.
class FreshRecord {
public:
    explicit FreshRecord(ManagerRecord* manager) : m_block(sizeof(ManagerRecord)) {
        if (m_block.memory == nullptr) return;
        record = reinterpret_cast<ManagerRecord*>(m_block.memory);
        record->flags = manager->flags & ~(ManagerOwnsPrinter | ManagerServiceRunning | ManagerTerminating);
        record->clientKind = manager->clientKind;
        record->variableCount = manager->variableCount;
        record->variableIndex = manager->variableIndex;
        const PrinterNameText name = CurrentPrinterName(manager);
        memcpy(record->printerName, name.text, sizeof record->printerName);
        record->databaseMutex = manager->databaseMutex;
    }
    ~FreshRecord() {
        if (record == nullptr) return;
        if ((record->flags & ManagerOwnsPrinter) != 0) ReleasePrinterOwnership(record);
        CloseOwnerEvent(record);
        CloseDatabases(record);
        FreeBlock(record->driverName);
        if (record->requestMutex != nullptr) CloseHandle(record->requestMutex);
    }
    FreshRecord(const FreshRecord&) = delete;
    FreshRecord& operator=(const FreshRecord&) = delete;

    ManagerRecord* record = nullptr; // null: out of memory

private:
    HeapBlock m_block;
};

// The open manager that has the database, with a reference for the caller; null when there is none.
ManagerRecord* TakeHolder(const ManagerDatabase& database) {
    const ManagerLockHold lock;
    for (ManagerRecord* manager = g_managerList; manager != nullptr; manager = manager->next) {
        if (&manager->printerDatabase != &database && &manager->masterDatabase != &database) continue;
        InterlockedIncrement(&manager->references);
        return manager;
    }
    return nullptr;
}

struct Holder {
    explicit Holder(const ManagerDatabase& database) : manager(TakeHolder(database)) {}
    ~Holder() {
        if (manager != nullptr) ReleaseManager(manager);
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    ManagerRecord* const manager;
};

// The request mutex is named after the database, whose name may have changed.
bool ObtainRequestMutex(const ManagerRecord* manager, ManagerRecord* fresh, HeapBlock* retired) {
    if (strcmp(CurrentDatabaseName(manager).text, fresh->databaseName) == 0) return true;
    fresh->requestMutex = CreateOrOpenMutex(RequestMutexName(fresh->databaseName));
    retired->memory = static_cast<BYTE*>(AllocateZeroed(sizeof(RetiredMutex)));
    return fresh->requestMutex != nullptr && retired->memory != nullptr;
}

// Moves the contents of the fresh record to the manager, unless the manager was closed meanwhile: its close would not
// release them.
void TakeOver(ManagerRecord* manager, ManagerRecord* fresh, HeapBlock& retired) {
    const ManagerLockHold lock;
    if (FindManager(HandleOf(manager)) != manager) return;
    const bool owned = (fresh->flags & ManagerOwnsPrinter) != 0;
    manager->flags = owned ? manager->flags | ManagerOwnsPrinter : manager->flags & ~ManagerOwnsPrinter;
    fresh->flags &= ~ManagerOwnsPrinter;
    manager->printerIndex = fresh->printerIndex;
    manager->ownerProcessId = fresh->ownerProcessId;
    std::swap(manager->ownerEvent, fresh->ownerEvent); // the former one is closed with the fresh record
    std::swap(manager->pollingEvent, fresh->pollingEvent);
    memcpy(manager->databaseName, fresh->databaseName, sizeof manager->databaseName);
    if (fresh->requestMutex != nullptr) {
        auto* old = reinterpret_cast<RetiredMutex*>(retired.Take());
        *old = {.mutex = manager->requestMutex.exchange(fresh->requestMutex), .next = manager->retiredMutexes};
        manager->retiredMutexes = old;
        fresh->requestMutex = nullptr;
    }
    manager->masterDatabase.handle = fresh->masterDatabase.handle.exchange(0);
    manager->printerDatabase.handle = fresh->printerDatabase.handle.exchange(0);
    manager->serviceInstance = fresh->serviceInstance.load();
}

// The caller holds the database mutex.
Answer Reopen(ManagerRecord* manager) {
    FreshRecord fresh(manager);
    if (fresh.record == nullptr) return Answer::UnknownDatabase; // the next call tries again
    const FormerPlace former = {.printerIndex = manager->printerIndex,
                                .ownedPrinter = (manager->flags & ManagerOwnsPrinter) != 0};
    HeapBlock retired;
    if (!AttachPrinterDatabase(fresh.record, &former) || ObtainPrinterDatabase(fresh.record) != TVS_OK ||
        !ObtainRequestMutex(manager, fresh.record, &retired)) {
        product::ServiceInstance instance = 0;
        const Answer answer = GetServiceInstance(&instance); // the service may have ended again
        return answer != Answer::Done ? answer : Answer::UnknownDatabase;
    }
    AskForPolling(fresh.record);
    TakeOver(manager, fresh.record, retired);
    return Answer::Done;
}

} // namespace

Answer FollowService(const ManagerDatabase& database, DatabaseHandle* handle) {
    const Holder holder(database);
    if (holder.manager == nullptr || holder.manager->serviceInstance == 0) return Answer::UnknownDatabase;
    ManagerRecord* manager = holder.manager;
    product::ServiceInstance instance = 0;
    if (const Answer answer = GetServiceInstance(&instance); answer != Answer::Done) return answer;
    // The same service does not know the handle when it has released what this process had open: it does so when the
    // process's last connection ends.
    const bool isNew = manager->serviceInstance != instance;
    if (isNew || database.handle == *handle) {
        // Opens and reopenings of other managers may come first.
        MutexHold lock;
        if (!lock.Acquire(manager->databaseMutex, g_timings.reopenBound)) return Answer::UnknownDatabase;
        if (isNew ? manager->serviceInstance != instance : database.handle == *handle) {
            if (const Answer answer = Reopen(manager); answer != Answer::Done) return answer;
        }
    }
    const DatabaseHandle now = database.handle;
    if (now == *handle) return Answer::UnknownDatabase;
    *handle = now;
    return Answer::Done;
}

void CloseRetiredMutexes(ManagerRecord* manager) {
    const ManagerLockHold lock;
    while (RetiredMutex* retired = manager->retiredMutexes) {
        manager->retiredMutexes = retired->next;
        CloseHandle(retired->mutex);
        FreeBlock(retired);
    }
}

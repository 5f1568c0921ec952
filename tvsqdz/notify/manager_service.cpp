// State: the thread's record, and what it registers, on the manager's list; all else is in the printer's database.
#include "notify/manager_service.h"

#include "access/stored_list.h"
#include "frame/guards.h"
#include "frame/heap.h"
#include "frame/timings.h"
#include "notify/delivery.h"
#include "notify/registrations.h"
#include "notify/relayed_registrations.h"
#include "notify/relayed_requests.h"
#include "notify/request_threads.h"

#include <string.h>

namespace {

constexpr DWORD kStopped = 1;
constexpr DWORD kNotServed = static_cast<DWORD>(-1);

// One of the two variables that others write to.
struct Mailbox {
    Mailbox(const NotificationRegistration& owner, const char* name)
        : registration(owner), variable(name), event(BeginWatch(owner, name, dblink::kEveryWrite)) {}
    ~Mailbox() {
        if (event != nullptr) EndWatch(registration, variable, event);
    }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    const NotificationRegistration& registration;
    const char* variable;
    HANDLE event; // null: there is none
};

MessageRegistrationEntry EntryOf(const StoredList& list, uint32_t i) {
    MessageRegistrationEntry entry;
    memcpy(&entry, list.Item(i), sizeof entry);
    entry.variableName[sizeof entry.variableName - 1] = '\0'; // others wrote it
    return entry;
}

bool IsLive(const MessageRegistrationEntry& entry) {
    return entry.registrationId != 0;
}

bool IsSame(const MessageRegistrationEntry& a, const MessageRegistrationEntry& b) {
    return a.window == b.window && a.message == b.message && strcmp(a.variableName, b.variableName) == 0;
}

bool IsWantedByAnother(const StoredList& list, const MessageRegistrationEntry& cancelled) {
    for (uint32_t i = 0; i < list.Count(); ++i) {
        const MessageRegistrationEntry entry = EntryOf(list, i);
        if (IsLive(entry) && IsSame(entry, cancelled)) return true;
    }
    return false;
}

TvsRegistration LocalRegistration(ManagerRecord* manager, const MessageRegistrationEntry& entry) {
    return FindMessageRegistration(manager, entry.variableName, WindowFromStored(entry.window), entry.message);
}

// What a pass finds out.
struct Pass {
    TvsRegistration* ended; // room for as many as the list has entries
    uint32_t endedCount = 0;
    bool anyCancelled = false; // of those that were registered
    bool complete = true;
};

// Registers what is live and not registered, and gathers what is registered and cancelled, unless a live entry shares
// it.
void Compare(ManagerRecord* manager, const StoredList& list, Pass* pass) {
    for (uint32_t i = 0; i < list.Count(); ++i) {
        const MessageRegistrationEntry entry = EntryOf(list, i);
        TvsRegistration registration = LocalRegistration(manager, entry);
        if (!IsLive(entry)) {
            if (registration == 0) continue;
            pass->anyCancelled = true;
            if (!IsWantedByAnother(list, entry)) pass->ended[pass->endedCount++] = registration;
        } else if (registration == 0) {
            const Status status = AddMessageRegistration(manager, entry.variableName, WindowFromStored(entry.window),
                                                         entry.message, &registration);
            // A variable that there is not will not be there at the next pass either. All else may change: there was no
            // memory, or the open of the manager has not come to its end yet.
            if (status != TVS_OK && status != TVS_E_UNKNOWN) pass->complete = false;
        }
    }
}

void RemoveCancelled(StoredList& list) {
    for (uint32_t i = list.Count(); i > 0; --i)
        if (!IsLive(EntryOf(list, i - 1))) list.Remove(i - 1);
    list.Store();
}

// One pass over the registrations. The lock is let go before anything is cancelled, since a watcher that is to end may
// be waiting for it; and it is not waited for beyond the stop. False when the pass has to be made again.
bool ServeRegistrations(ManagerRecord* manager, HANDLE stop) {
    MutexHold lock;
    if (!lock.AcquireUnless(stop, manager->databaseMutex)) return true;
    StoredList list(manager->printerDatabase, kRelayedRegistrationsVariable, sizeof(MessageRegistrationEntry));
    const Status loaded = list.Load();
    if (loaded != TVS_OK) return loaded != TVS_E_MEMORY;
    HeapBlock endedBlock(SIZE_T{list.Count()} * sizeof(TvsRegistration) + 1);
    if (endedBlock.memory == nullptr) return false;
    Pass pass = {.ended = reinterpret_cast<TvsRegistration*>(endedBlock.memory)};
    Compare(manager, list, &pass);
    if (pass.anyCancelled) RemoveCancelled(list);
    lock.Release();
    for (uint32_t i = 0; i < pass.endedCount; ++i)
        KillRegistration(manager, pass.ended[i]);
    return pass.complete;
}

// Starts the thread of a request that is there. It is taken out afterwards: one that cannot be started is tried again.
bool ServeRequest(ManagerRecord* manager, HANDLE stop) {
    MutexHold lock;
    if (!lock.AcquireUnless(stop, manager->requestMutex)) return true;
    StatusRequest request;
    if (!ReadRelayedRequest(manager, &request)) return true;
    if (!StartRequestThread(manager, request, nullptr, lock.result)) return false;
    ClearRelayedRequest(manager);
    return true;
}

DWORD Serve(ManagerRecord* manager, const NotificationRegistration& record) {
    const Mailbox registrations(record, kRelayedRegistrationsVariable);
    const Mailbox requests(record, kRelayedRequestVariable);
    if (registrations.event == nullptr || requests.event == nullptr) return kNotServed;
    const HANDLE stop = record.thread.stopEvent;
    const HANDLE handles[] = {stop, registrations.event, requests.event};
    DWORD registrationWrites = 0;
    DWORD requestWrites = 0;
    // A pulse that came while a pass ran is missed, so what was written is counted, now and after each slice. A pass
    // that has to be made again leaves its count as it was.
    for (;;) {
        const DatabaseHandle database = manager->printerDatabase;
        DWORD writes = 0;
        if (GetWriteCount(database, kRelayedRegistrationsVariable, &writes) == Answer::Done &&
            writes != registrationWrites && ServeRegistrations(manager, stop))
            registrationWrites = writes;
        if (GetWriteCount(database, kRelayedRequestVariable, &writes) == Answer::Done && writes != requestWrites &&
            ServeRequest(manager, stop))
            requestWrites = writes;
        switch (WaitForMultipleObjects(3, handles, FALSE, g_timings.relaySlice)) {
        case WAIT_OBJECT_0:
            return kStopped;
        case WAIT_FAILED:
            return GetLastError();
        default:
            break;
        }
    }
}

void SetRunning(ManagerRecord* manager, bool runs) {
    const ManagerLockHold lock;
    if (runs)
        manager->flags |= ManagerServiceRunning;
    else
        manager->flags &= ~ManagerServiceRunning;
}

DWORD WINAPI ManagerServiceThread(void* parameter) {
    const NotificationRegistration& record = RegistrationOf(parameter);
    const DWORD result = Serve(record.thread.manager, record);
    SetRunning(record.thread.manager, false);
    return result;
}

} // namespace

bool StartManagerService(ManagerRecord* manager) {
    NotificationRegistration* record = NewRegistration(manager, 1);
    if (record == nullptr) return false;
    memcpy(record->entries[0].variableName, kRelayedRegistrationsVariable, sizeof kRelayedRegistrationsVariable);
    SetRunning(manager, true);
    if (!StartThreadRecord(&record->thread, manager, ManagerServiceThread)) {
        SetRunning(manager, false);
        FreeBlock(record);
        return false;
    }
    const ManagerLockHold lock;
    manager->registrations = &record->thread;
    return true;
}

// The service of a printer's owner. State: the record of the thread and its registrations, on the manager's list;
// everything else is in the printer's database.
#include "requests/owner.h"

#include "base/memory.h"
#include "base/timings.h"
#include "notify/registrations.h"
#include "notify/relayed_registrations.h"
#include "notify/watcher.h"
#include "product/guards.h"
#include "requests/threads.h"
#include "values/stored_list.h"

#include <string.h>
#include <utility>

namespace {

constexpr DWORD kStopped = 1;

MessageRegistrationEntry EntryOf(const StoredList& list, uint32_t i) {
    MessageRegistrationEntry entry;
    memcpy(&entry, list.Item(i), sizeof entry);
    entry.variableName[sizeof entry.variableName - 1] = '\0'; // written by others
    return entry;
}

bool IsLive(const MessageRegistrationEntry& entry) {
    return entry.registrationId != 0;
}

// A window that is there may lack an answer: this process may be out of descriptors.
bool IsGone(uint32_t storedWindow) {
    SetLastError(ERROR_SUCCESS);
    if (IsWindow(WindowFromStored(storedWindow))) return false;
    return GetLastError() == ERROR_SUCCESS || GetLastError() == ERROR_INVALID_WINDOW_HANDLE;
}

// Registrations of windows that are gone, with their process or before it, count as cancelled. True when there were
// some.
bool CancelThoseOfGoneWindows(StoredList& list) {
    bool any = false;
    for (uint32_t i = 0; i < list.Count(); ++i) {
        MessageRegistrationEntry entry;
        memcpy(&entry, list.Item(i), sizeof entry);
        if (!IsLive(entry) || !IsGone(entry.window)) continue;
        entry.registrationId = 0;
        memcpy(list.Item(i), &entry, sizeof entry);
        any = true;
    }
    return any;
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

// The registrations that have been cancelled.
struct Cancelled {
    TvsRegistration* ended; // as many as the list has entries
    uint32_t endedCount = 0;
    bool any = false; // the list has one to remove

    // Entries may share a registration, and once it has ended another one may get its handle.
    void AddOnce(TvsRegistration registration) {
        for (uint32_t i = 0; i < endedCount; ++i)
            if (ended[i] == registration) return;
        ended[endedCount++] = registration;
    }
};

// Collects the registration of a cancelled entry, unless a live entry shares it.
void FindCancelled(ManagerRecord* manager, const StoredList& list, Cancelled* cancelled) {
    for (uint32_t i = 0; i < list.Count(); ++i) {
        const MessageRegistrationEntry entry = EntryOf(list, i);
        const TvsRegistration registration = IsLive(entry) ? 0 : LocalRegistration(manager, entry);
        if (registration == 0) continue;
        cancelled->any = true;
        if (!IsWantedByAnother(list, entry)) cancelled->AddOnce(registration);
    }
}

// The live entries of the last pass. A restarted service has none, while those who registered them still wait, and will
// cancel them by their numbers.
class KnownEntries {
public:
    KnownEntries() = default;
    ~KnownEntries() { FreeBlock(m_entries); }
    KnownEntries(const KnownEntries&) = delete;
    KnownEntries& operator=(const KnownEntries&) = delete;

    // When out of memory, empty.
    void Remember(const StoredList& list) {
        FreeBlock(m_entries);
        m_count = 0;
        m_entries = static_cast<MessageRegistrationEntry*>(
            AllocateZeroed(SIZE_T{list.Count()} * sizeof(MessageRegistrationEntry) + 1));
        for (uint32_t i = 0; m_entries != nullptr && i < list.Count(); ++i)
            if (const MessageRegistrationEntry entry = EntryOf(list, i); IsLive(entry)) m_entries[m_count++] = entry;
    }

    bool HasGoneWindows() const {
        for (uint32_t i = 0; i < m_count; ++i)
            if (IsGone(m_entries[i].window)) return true;
        return false;
    }

    // Appends those that the list lacks. The caller holds the database mutex.
    void Restore(ManagerRecord* manager) const {
        StoredList list(manager->printerDatabase, kRelayedRegistrationsVariable, sizeof(MessageRegistrationEntry));
        if (m_count == 0 || list.Load(m_count) != TVS_OK) return;
        const uint32_t before = list.Count();
        for (uint32_t i = 0; i < m_count; ++i)
            if (!IsIn(list, m_entries[i])) memcpy(list.Append(), &m_entries[i], sizeof m_entries[i]);
        if (list.Count() != before) list.Store();
    }

private:
    static bool IsIn(const StoredList& list, const MessageRegistrationEntry& known) {
        for (uint32_t i = 0; i < list.Count(); ++i)
            if (const MessageRegistrationEntry entry = EntryOf(list, i);
                entry.registrationId == known.registrationId && IsSame(entry, known))
                return true;
        return false;
    }

    MessageRegistrationEntry* m_entries = nullptr;
    uint32_t m_count = 0;
};

// Registers live entries that are not yet registered. False when one could not be.
bool RegisterLive(ManagerRecord* manager, const StoredList& list) {
    bool complete = true;
    for (uint32_t i = 0; i < list.Count(); ++i) {
        const MessageRegistrationEntry entry = EntryOf(list, i);
        if (!IsLive(entry) || LocalRegistration(manager, entry) != 0) continue;
        TvsRegistration registration = 0;
        const Status status = AddMessageRegistration(manager, entry.variableName, WindowFromStored(entry.window),
                                                     entry.message, &registration);
        // A variable that does not exist now will not exist in the next pass. All other failures may pass: out of
        // memory, or an open that has not finished.
        if (status != TVS_OK && status != TVS_E_UNKNOWN) complete = false;
    }
    return complete;
}

void RemoveCancelled(StoredList& list) {
    for (uint32_t i = list.Count(); i > 0; --i)
        if (!IsLive(EntryOf(list, i - 1))) list.Remove(i - 1);
    list.Store();
}

// One pass over the registrations. The lock is released before anything is registered or cancelled, because a watcher
// that begins or ends may wait for it, and a wait for the lock ends with the stop event. An entry that is cancelled in
// between is a write, and the next pass ends what this one registered. False when the pass has to be repeated.
bool ServeRegistrations(ManagerRecord* manager, HANDLE stop, KnownEntries& known) {
    MutexHold lock;
    if (!lock.AcquireUnless(stop, manager->databaseMutex)) return true;
    StoredList list(manager->printerDatabase, kRelayedRegistrationsVariable, sizeof(MessageRegistrationEntry));
    const Status loaded = list.Load();
    if (loaded != TVS_OK) return loaded != TVS_E_MEMORY;
    HeapBlock endedBlock(SIZE_T{list.Count()} * sizeof(TvsRegistration) + 1);
    if (endedBlock.memory == nullptr) return false;
    Cancelled cancelled = {.ended = reinterpret_cast<TvsRegistration*>(endedBlock.memory)};
    cancelled.any = CancelThoseOfGoneWindows(list);
    known.Remember(list);
    FindCancelled(manager, list, &cancelled);
    if (cancelled.any) RemoveCancelled(list);
    lock.Release();
    const bool complete = RegisterLive(manager, list);
    for (uint32_t i = 0; i < cancelled.endedCount; ++i)
        KillRegistration(manager, cancelled.ended[i]);
    return complete;
}

// Starts the thread of the request, if there is one, and then takes the request: one whose thread cannot be started is
// tried again.
bool ServeRequest(ManagerRecord* manager, HANDLE stop) {
    MutexHold lock;
    if (!lock.AcquireUnless(stop, manager->requestMutex)) return true;
    StatusRequest request;
    if (!ReadRelayedRequest(manager, &request)) return true;
    if (!StartRequestThread(manager, request, nullptr, lock.result)) return false;
    ClearRelayedRequest(manager);
    return true;
}

void RestoreRegistrations(ManagerRecord* manager, HANDLE stop, const KnownEntries& known) {
    MutexHold lock;
    if (lock.AcquireUnless(stop, manager->databaseMutex)) known.Restore(manager);
}

// In a new service another process may have become the owner before this one opened its databases there.
bool OwnsPrinter(const ManagerRecord* manager) {
    const ManagerLockHold lock;
    return (manager->flags & ManagerOwnsPrinter) != 0;
}

DWORD Serve(ManagerRecord* manager, const NotificationRegistration& record) {
    Watch registrations;
    Watch requests;
    registrations.Begin(record, kRelayedRegistrationsVariable, product::kEveryWrite);
    requests.Begin(record, kRelayedRequestVariable, product::kEveryWrite);
    const HANDLE stop = record.thread.stopEvent;
    DWORD registrationWrites = 0;
    DWORD requestWrites = 0;
    DWORD lookedForWindows = GetTickCount();
    KnownEntries known;
    product::SignalWait signals(stop);
    signals.SetEvent(0, registrations.Event());
    signals.SetEvent(1, requests.Event());
    // A pass that has to be repeated keeps its old count.
    for (;;) {
        const ManagerDatabase& database = manager->printerDatabase;
        DWORD writes = 0;
        const bool answers = GetWriteCount(database, kRelayedRegistrationsVariable, &writes) == Answer::Done;
        const bool serves = answers && OwnsPrinter(manager);
        const bool isLost = registrations.IsLost() || requests.IsLost();
        if (isLost || !registrations.IsWhole() || !requests.IsWhole()) {
            if (serves && isLost) RestoreRegistrations(manager, stop, known);
            registrations.Renew();
            requests.Renew();
            signals.SetEvent(0, registrations.Event());
            signals.SetEvent(1, requests.Event());
            registrationWrites = 0;
            requestWrites = 0;
        }
        bool isStale = writes != registrationWrites;
        if (GetTickCount() - lookedForWindows >= g_timings.relayLook) {
            isStale = isStale || known.HasGoneWindows();
            lookedForWindows = GetTickCount();
        }
        if (serves && isStale && ServeRegistrations(manager, stop, known)) registrationWrites = writes;
        if (serves && GetWriteCount(database, kRelayedRequestVariable, &writes) == Answer::Done &&
            writes != requestWrites && ServeRequest(manager, stop))
            requestWrites = writes;
        switch (signals.Wait(g_timings.relayLook)) {
        case product::Woken::Stopped:
            return kStopped;
        case product::Woken::Failed:
            return GetLastError();
        default:
            break;
        }
        for (const auto& [number, watch] : {std::pair{DWORD{0}, &registrations}, std::pair{DWORD{1}, &requests}})
            if (signals.Take(number).isSet) ResetEvent(watch->Event()); // somebody left it set
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

namespace {

Answer ReadRecord(ManagerRecord* manager, StatusRequest* request) {
    DWORD size = 0;
    *request = {};
    return ReadVariable(manager->printerDatabase, kRelayedRequestVariable, request, sizeof *request, &size);
}

Answer WriteRecord(ManagerRecord* manager, const StatusRequest& request) {
    return WriteVariable(manager->printerDatabase, kRelayedRequestVariable, &request, sizeof request);
}

bool IsRequest(const StatusRequest& request) {
    return request.requestFlags != 0;
}

template <SIZE_T size>
void Terminate(char (&text)[size]) {
    text[size - 1] = '\0';
}

} // namespace

Status RelayRequest(ManagerRecord* manager, const StatusRequest& request, MutexHold& lock) {
    const DWORD start = GetTickCount();
    for (;;) {
        StatusRequest present;
        if (const Answer answer = ReadRecord(manager, &present); answer != Answer::Done) return PassOn(answer);
        if (!IsRequest(present)) return PassOn(WriteRecord(manager, request));
        if (GetTickCount() - start >= g_timings.relayBound) return TVS_E_NO_OWNER;
        lock.Release();
        Sleep(g_timings.relayPause);
        if (!lock.Acquire(manager->requestMutex)) return TVS_E_REQUEST_LOCK;
    }
}

bool ReadRelayedRequest(ManagerRecord* manager, StatusRequest* request) {
    if (ReadRecord(manager, request) != Answer::Done || !IsRequest(*request)) return false;
    Terminate(request->variableName);
    Terminate(request->printerName);
    request->requestFlags = (request->requestFlags & REQ_WRITE) != 0 ? REQ_WRITE : REQ_READ;
    request->requestFlags |= REQ_BY_MESSAGE;
    return true;
}

void ClearRelayedRequest(ManagerRecord* manager) {
    WriteRecord(manager, {});
}

// Registrations of one and of several variables. State: the manager's list of records, under g_managerLock.
#include "notify/registrations.h"

#include "base/memory.h"
#include "manager/variable_index.h"
#include "manager/variables.h"
#include "notify/caller_lists.h"
#include "product/linked_list.h"
#include "product/signal_wait.h"

#include <string.h>

namespace {

TvsRegistration RegistrationHandle(const ThreadRecord* record) {
    return reinterpret_cast<TvsRegistration>(record);
}

// A close takes the list after it has removed the manager from the list of managers; a record that is appended later
// would never be stopped.
bool Append(ManagerRecord* manager, ThreadRecord* record) {
    const ManagerLockHold lock;
    if (FindManager(HandleOf(manager)) != manager) return false;
    ThreadRecord* last = FindLastRegistration(manager->registrations);
    (last != nullptr ? last->next : manager->registrations) = record;
    return true;
}

NotificationRegistration* TakeOut(ManagerRecord* manager, TvsRegistration handle) {
    const ManagerLockHold lock;
    if (FindManager(HandleOf(manager)) != manager) return nullptr;
    ThreadRecord* record = TakeFromList(&manager->registrations,
                                        [&](const ThreadRecord& each) { return RegistrationHandle(&each) == handle; });
    return reinterpret_cast<NotificationRegistration*>(record);
}

void CancelDelegated(ManagerRecord* manager, const NotificationRegistration& registration) {
    for (uint32_t i = 0; i < registration.entryCount; ++i)
        if ((registration.entries[i].mode & NOTIFY_DELEGATED) != 0)
            KillRegistration(manager, registration.entries[i].target);
}

bool Posts(const NotificationEntry& entry, const char* variableName, HWND window, uint32_t message) {
    return (entry.mode & NOTIFY_BY_MESSAGE) != 0 && entry.target == reinterpret_cast<UINT_PTR>(window) &&
           entry.message == message && strcmp(entry.variableName, variableName) == 0;
}

// Makes the watcher look, unless it has been cancelled meanwhile.
void RouseListed(ManagerRecord* manager, const NotificationRegistration* registration) {
    const ManagerLockHold lock;
    if (!manager->rousesWatchers || FindManager(HandleOf(manager)) != manager) return;
    const ThreadRecord* listed =
        FindInList(manager->registrations, [&](const ThreadRecord& each) { return &each == &registration->thread; });
    if (listed != nullptr) product::Rouse(listed->thread);
}

// False: the manager is closed.
bool ListStartWatch(ManagerRecord* manager, ThreadRecord* startWatch) {
    const ManagerLockHold lock;
    if (FindManager(HandleOf(manager)) != manager) return false;
    manager->startWatch = startWatch;
    return true;
}

// The one that is listed, when nobody needs it any more; null otherwise.
ThreadRecord* TakeIdleStartWatch(ManagerRecord* manager) {
    const ManagerLockHold lock;
    ThreadRecord* startWatch = manager->startWatch;
    if (manager->registrations != nullptr || startWatch == nullptr) return nullptr;
    manager->startWatch = nullptr;
    manager->startIsWatched = false;
    return startWatch;
}

// Without it, watchers wait for the start of a service themselves.
void WatchForStart(ManagerRecord* manager) {
    if (!product::WaitsCanBeRoused() || manager->startIsWatched.exchange(true)) return;
    NotificationRegistration* registration = NewRegistration(manager, 0);
    if (registration == nullptr) return;
    ThreadRecord* record = &registration->thread;
    if (!StartThreadRecord(record, manager, StartWatch)) {
        FreeBlock(registration);
        return;
    }
    AwaitThreadBegun(*record);
    if (!ListStartWatch(manager, record)) StopThreadRecord(record);
}

} // namespace

bool CanBeWatched(const StatusVariableDef& variable) {
    return strlen(variable.name) < kWatchedNameSize;
}

ThreadProc OwnWatcher(const StatusVariableDef& variable, DeliveryForm form) {
    return form == DeliveryForm::Callback ? variable.callbackThreadProc : variable.watchThreadProc;
}

ThreadProc DefaultWatcher(DeliveryForm form) {
    return form == DeliveryForm::Callback ? ChangeCallbackWatch : ChangeWatch;
}

NotificationRegistration* NewRegistration(ManagerRecord* manager, uint32_t entryCount) {
    const uint64_t size = RegistrationSize(entryCount);
    if (size > SIZE_MAX) return nullptr;
    auto* registration = static_cast<NotificationRegistration*>(AllocateZeroed(static_cast<SIZE_T>(size)));
    if (registration == nullptr) return nullptr;
    registration->databaseMutex = manager->databaseMutex;
    registration->userName = manager->userName;
    registration->callbackContext = HandleOf(manager);
    registration->entryCount = entryCount;
    return registration;
}

void SetEntry(NotificationEntry& entry, const StatusVariableDef& variable, DeliveryForm form) {
    entry.mode = (form == DeliveryForm::Message ? NOTIFY_BY_MESSAGE : NOTIFY_BY_EVENT) |
                 ((variable.flags & SVF_NOTIFY_EVERY_WRITE) != 0 ? NOTIFY_ON_UPDATE : NOTIFY_ON_CHANGE);
    memcpy(entry.variableName, variable.name,
           strlen(variable.name)); // CanBeWatched checked the length; the block is zero behind it
    const bool sizeVaries = (variable.flags & (SVT_PROBED | SVT_QUEUE)) != 0; // a queue's size is that of an item
    entry.valueSize = sizeVaries ? 0 : variable.size;
}

void SetTarget(NotificationEntry& entry, DeliveryForm form, const DeliveryTarget& target) {
    entry.target = target.target;
    if (form == DeliveryForm::Message) entry.message = target.number;
    if (form == DeliveryForm::Callback) entry.withoutValue = target.number;
}

Status StartRegistration(ManagerRecord* manager, NotificationRegistration* registration, ThreadProc watcher,
                         TvsRegistration* handle) {
    WatchForStart(manager);
    ThreadRecord* record = &registration->thread;
    if (!StartThreadRecord(record, manager, watcher)) {
        CancelDelegated(manager, *registration);
        FreeBlock(registration);
        return TVS_E_MEMORY;
    }
    AwaitThreadBegun(*record);
    if (!Append(manager, record)) {
        CancelDelegated(manager, *registration);
        StopThreadRecord(record);
        return TVS_E_HANDLE;
    }
    WatchForStart(manager);             // again: the last registration before may have ended meanwhile
    RouseListed(manager, registration); // a service that started before it was listed was not told to it
    // The record may be gone by now, cancelled from its callback or with its manager.
    *handle = RegistrationHandle(record);
    return TVS_OK;
}

Status AddRegistration(ManagerRecord* manager, const StatusVariableDef& variable, DeliveryForm form,
                       const DeliveryTarget& target, uint32_t index, TvsRegistration* handle) {
    if (!CanBeWatched(variable)) return TVS_E_UNKNOWN;
    NotificationRegistration* registration = NewRegistration(manager, 1);
    if (registration == nullptr) return TVS_E_MEMORY;
    registration->callbackIndex = index;
    SetEntry(registration->entries[0], variable, form);
    SetTarget(registration->entries[0], form, target);
    const ThreadProc own = OwnWatcher(variable, form);
    return StartRegistration(manager, registration, own != nullptr ? own : DefaultWatcher(form), handle);
}

Status AddRegistrationOfName(ManagerRecord* manager, const char* variableName, DeliveryForm form,
                             const DeliveryTarget& target, uint32_t index, TvsRegistration* handle) {
    const StatusVariableDef* variable = FindStatusVariable(manager, variableName);
    if (variable == nullptr) return TVS_E_UNKNOWN;
    return AddRegistration(manager, *variable, form, target, index, handle);
}

Status AddMessageRegistration(ManagerRecord* manager, const char* variableName, HWND window, uint32_t message,
                              TvsRegistration* handle) {
    return AddRegistrationOfName(manager, variableName, DeliveryForm::Message,
                                 {reinterpret_cast<UINT_PTR>(window), message}, 0, handle);
}

Status KillRegistration(ManagerRecord* manager, TvsRegistration handle) {
    if (handle == 0) return TVS_E_HANDLE;
    NotificationRegistration* registration = TakeOut(manager, handle);
    if (registration == nullptr) return TVS_E_HANDLE;
    CancelDelegated(manager, *registration);
    StopThreadRecord(&registration->thread);
    if (ThreadRecord* idle = TakeIdleStartWatch(manager)) StopThreadRecord(idle);
    return TVS_OK;
}

TvsRegistration FindMessageRegistration(ManagerRecord* manager, const char* variableName, HWND window,
                                        uint32_t message) {
    const ManagerLockHold lock;
    for (const ThreadRecord* record = manager->registrations; record != nullptr; record = record->next) {
        const NotificationRegistration& registration = RegistrationOf(record);
        for (uint32_t i = 0; i < registration.entryCount; ++i)
            if (Posts(registration.entries[i], variableName, window, message)) return RegistrationHandle(record);
    }
    return 0;
}

namespace {

// One of the handles in a wait is the stop event.
constexpr uint32_t kServedByOneWatcher = MAXIMUM_WAIT_OBJECTS - 1;

// Sets names and modes of the entries. The mode marks a delegated entry, whose handle is set later.
Status SetVariables(NotificationRegistration* registration, const ManagerRecord* manager, DeliveryForm form,
                    NameList& names) {
    uint32_t servedTogether = 0;
    for (uint32_t i = 0; i < registration->entryCount; ++i) {
        const StatusVariableDef* variable = FindStatusVariable(manager, names.Next());
        if (variable == nullptr || !CanBeWatched(*variable)) return TVS_E_UNKNOWN;
        SetEntry(registration->entries[i], *variable, form);
        if (OwnWatcher(*variable, form) != nullptr)
            registration->entries[i].mode = NOTIFY_DELEGATED;
        else if (++servedTogether > kServedByOneWatcher)
            return TVS_E_UNKNOWN;
    }
    return TVS_OK;
}

// Creates the record with its names and without its targets; the names are caller memory.
Status NewListed(ManagerRecord* manager, const RegistrationList& list, HeapBlock& record) {
    NameList names;
    if (const Status status = names.Read(list.count, list.names); status != TVS_OK) return status;
    record.memory = reinterpret_cast<BYTE*>(NewRegistration(manager, list.count));
    if (record.memory == nullptr) return TVS_E_MEMORY;
    return SetVariables(reinterpret_cast<NotificationRegistration*>(record.memory), manager, list.form, names);
}

void SetTargets(NotificationRegistration* registration, ManagerRecord* manager, const RegistrationList& list,
                CallerArray<UINT_PTR>& targets, CallerArray<uint32_t>& numbers) {
    const UINT_PTR window = reinterpret_cast<UINT_PTR>(list.window);
    for (uint32_t i = 0; i < list.count; ++i) {
        NotificationEntry& entry = registration->entries[i];
        const DeliveryTarget target = {list.form == DeliveryForm::Message ? window : targets[i], numbers[i]};
        if (entry.mode == NOTIFY_DELEGATED)
            AddRegistrationOfName(manager, entry.variableName, list.form, target, i, &entry.target);
        else
            SetTarget(entry, list.form, target);
    }
}

bool AnyIsNull(uint32_t count, CallerArray<UINT_PTR>& targets) {
    for (uint32_t i = 0; i < count; ++i)
        if (targets[i] == 0) return true;
    return false;
}

} // namespace

Status AddRegistrationList(ManagerRecord* manager, const RegistrationList& list, TvsRegistration* handle) {
    HeapBlock record;
    if (const Status status = NewListed(manager, list, record); status != TVS_OK) return status;
    CallerArray<UINT_PTR> targets(list.count, static_cast<const UINT_PTR*>(list.targets),
                                  list.form != DeliveryForm::Message);
    if (targets.status != TVS_OK) return targets.status;
    CallerArray<uint32_t> numbers(list.count, list.numbers, list.form != DeliveryForm::Event);
    if (numbers.status != TVS_OK) return numbers.status;
    if (list.form == DeliveryForm::Callback && AnyIsNull(list.count, targets)) return TVS_E_FAULT;

    auto* registration = reinterpret_cast<NotificationRegistration*>(record.Take());
    SetTargets(registration, manager, list, targets, numbers);
    return StartRegistration(manager, registration, DefaultWatcher(list.form), handle);
}

Status AddMessageRegistrationEx(ManagerRecord* manager, uint32_t count, const char* names, HWND window,
                                const uint32_t* messages, TvsRegistration* handle) {
    return AddRegistrationList(manager,
                               {.form = DeliveryForm::Message,
                                .count = count,
                                .names = names,
                                .targets = nullptr,
                                .window = window,
                                .numbers = messages},
                               handle);
}

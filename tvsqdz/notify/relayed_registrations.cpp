// Relayed registrations. State: the printer's database, and the manager's list of those that were relayed for it, under
// g_managerLock.
#include "notify/relayed_registrations.h"

#include "base/memory.h"
#include "manager/printer_list.h"
#include "manager/variable_index.h"
#include "notify/caller_lists.h"
#include "notify/registrations.h"
#include "product/client_kinds.h"
#include "product/guards.h"
#include "product/linked_list.h"
#include "values/stored_list.h"

#include <string.h>
#include <utility>

// In a block of the heap. A number may be given to another registration once its own has ended with its window.
struct RelayedRegistration {
    uint32_t number;
    uint32_t window;
    RelayedRegistration* next;
};

namespace {

// "NotifyMsg" of the manager's printer. The database mutex is held while it is in use.
struct RelayedList {
    explicit RelayedList(ManagerRecord* manager)
        : list(manager->printerDatabase, kRelayedRegistrationsVariable, sizeof(MessageRegistrationEntry)) {}

    MessageRegistrationEntry Entry(uint32_t i) const {
        MessageRegistrationEntry entry;
        memcpy(&entry, list.Item(i), sizeof entry);
        return entry;
    }

    // Cancels the entries with the number; a window, if not 0, has to agree. True when there were some.
    bool Cancel(TvsRegistration number, uint32_t window) {
        bool changed = false;
        for (uint32_t i = 0; i < list.Count(); ++i) {
            MessageRegistrationEntry entry = Entry(i);
            if (entry.registrationId != number || (window != 0 && entry.window != window)) continue;
            entry.registrationId = 0;
            memcpy(list.Item(i), &entry, sizeof entry);
            changed = true;
        }
        return changed;
    }

    StoredList list;
};

// The caller frees it; null: there is none.
RelayedRegistration* TakeRelayed(ManagerRecord* manager, TvsRegistration handle) {
    const ManagerLockHold lock;
    return TakeFromList(&manager->relayed, [&](const RelayedRegistration& each) { return each.number == handle; });
}

// False when the manager was closed meanwhile: its close does not see the record.
bool Remember(ManagerRecord* manager, RelayedRegistration* record) {
    FreeBlock(TakeRelayed(manager, record->number)); // ended with its window
    const ManagerLockHold lock;
    if (FindManager(HandleOf(manager)) != manager) return false;
    AppendToList(&manager->relayed, record);
    return true;
}

// Appends the entries with their number.
Status Relay(ManagerRecord* manager, MessageRegistrationEntry* entries, uint32_t count, TvsRegistration* handle) {
    HeapBlock record(sizeof(RelayedRegistration));
    if (record.memory == nullptr) return TVS_E_MEMORY;
    const DatabaseLock lock(*manager);
    if (!lock.held) return TVS_E_NOT_READY;
    RelayedList relayed(manager);
    if (const Status status = relayed.list.Load(count); status != TVS_OK) return status;
    const uint32_t number = relayed.list.NextNumber();
    if (number == 0) return TVS_E_MEMORY;
    for (uint32_t i = 0; i < count; ++i) {
        entries[i].registrationId = number;
        memcpy(relayed.list.Append(), &entries[i], sizeof entries[i]);
    }
    if (const Answer answer = relayed.list.Store(); answer != Answer::Done) return PassOn(answer);
    *handle = number;
    if (count == 0) return TVS_OK; // nothing to cancel
    auto* remembered = reinterpret_cast<RelayedRegistration*>(record.memory);
    *remembered = {.number = number, .window = entries[0].window, .next = nullptr};
    if (Remember(manager, remembered)) {
        record.Take();
        return TVS_OK;
    }
    relayed.Cancel(number, 0);
    relayed.list.Store();
    return TVS_E_HANDLE;
}

void SetRelayed(MessageRegistrationEntry* entry, const char* variableName, HWND window, uint32_t message) {
    entry->window = HandleToULong(window);
    entry->message = message;
    memcpy(entry->variableName, variableName, strlen(variableName)); // the entry is zero behind it
}

// A value that is not a window handle would become the handle of another window.
bool CanBeStored(HWND window) {
    return WindowFromStored(HandleToULong(window)) == window;
}

} // namespace

bool DeliversMessagesItself() {
    return (g_processKindMask & kLocalDeliveryKinds) != 0;
}

bool OwnerProcessExists() {
    return (KindMask() & kOwnerKindBit) != 0;
}

Status AddRelayedRegistration(ManagerRecord* manager, const char* variableName, HWND window, uint32_t message,
                              TvsRegistration* handle) {
    if (strlen(variableName) >= kWatchedNameSize || !CanBeStored(window)) return TVS_E_UNKNOWN;
    MessageRegistrationEntry entry = {};
    SetRelayed(&entry, variableName, window, message);
    return Relay(manager, &entry, 1, handle);
}

Status AddRelayedRegistrations(ManagerRecord* manager, uint32_t count, const char* callersNames, HWND window,
                               const uint32_t* callersMessages, TvsRegistration* handle) {
    if (!CanBeStored(window)) return TVS_E_UNKNOWN;
    NameList names;
    if (const Status status = names.Read(count, callersNames); status != TVS_OK) return status;
    const HeapBlock block(SIZE_T{count} * sizeof(MessageRegistrationEntry));
    if (block.memory == nullptr) return TVS_E_MEMORY;
    auto* entries = reinterpret_cast<MessageRegistrationEntry*>(block.memory);
    for (uint32_t i = 0; i < count; ++i) {
        const StatusVariableDef* variable = FindStatusVariable(manager, names.Next());
        if (variable == nullptr || !CanBeWatched(*variable)) return TVS_E_UNKNOWN;
        SetRelayed(&entries[i], variable->name, window, 0);
    }
    CallerArray<uint32_t> messages(count, callersMessages);
    if (messages.status != TVS_OK) return messages.status;
    for (uint32_t i = 0; i < count; ++i)
        entries[i].message = messages[i];
    return Relay(manager, entries, count, handle);
}

Status CancelRelayedRegistration(ManagerRecord* manager, TvsRegistration handle) {
    if (handle == 0) return TVS_OK; // entries that are already cancelled have this number
    const DatabaseLock lock(*manager);
    if (!lock.held) return TVS_E_NOT_READY;
    RelayedList relayed(manager);
    if (const Status status = relayed.list.Load(); status != TVS_OK) return status;
    RelayedRegistration* known = TakeRelayed(manager, handle);
    const uint32_t window = known != nullptr ? known->window : 0;
    FreeBlock(known);
    return relayed.Cancel(handle, window) ? PassOn(relayed.list.Store()) : TVS_OK;
}

bool IsRelayed(ManagerRecord* manager, TvsRegistration handle) {
    const ManagerLockHold lock;
    return FindInList(manager->relayed, [&](const RelayedRegistration& each) { return each.number == handle; }) !=
           nullptr;
}

namespace {

RelayedRegistration* TakeAllRelayed(ManagerRecord* manager) {
    const ManagerLockHold lock;
    return std::exchange(manager->relayed, nullptr);
}

} // namespace

void CancelRelayedRegistrations(ManagerRecord* manager) {
    RelayedRegistration* first = TakeAllRelayed(manager);
    if (first == nullptr) return;
    MutexHold lock;
    RelayedList relayed(manager);
    const bool isLoaded = AcquireInClose(manager, lock) && relayed.list.Load() == TVS_OK;
    bool changed = false;
    while (first != nullptr) {
        if (isLoaded && relayed.Cancel(first->number, first->window)) changed = true;
        FreeBlock(std::exchange(first, first->next));
    }
    if (changed) relayed.list.Store();
}

// Relayed registrations. State: the printer's database.
#include "notify/relayed_registrations.h"

#include "base/memory.h"
#include "manager/variable_index.h"
#include "notify/caller_lists.h"
#include "notify/registrations.h"
#include "product/client_kinds.h"
#include "product/guards.h"
#include "values/stored_list.h"

#include <string.h>

namespace {

// "NotifyMsg" of the manager's printer. Holds the database mutex as long as it lives.
struct RelayedList {
    explicit RelayedList(ManagerRecord* manager)
        : lock(manager->databaseMutex),
          list(manager->printerDatabase, kRelayedRegistrationsVariable, sizeof(MessageRegistrationEntry)) {}

    MessageRegistrationEntry Entry(uint32_t i) const {
        MessageRegistrationEntry entry;
        memcpy(&entry, list.Item(i), sizeof entry);
        return entry;
    }

    MutexHold lock;
    StoredList list;
};

// Appends the entries with their number.
Status Relay(ManagerRecord* manager, MessageRegistrationEntry* entries, uint32_t count, TvsRegistration* handle) {
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
    return TVS_OK;
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
    RelayedList relayed(manager);
    if (const Status status = relayed.list.Load(); status != TVS_OK) return status;
    bool changed = false;
    for (uint32_t i = 0; i < relayed.list.Count(); ++i) {
        MessageRegistrationEntry entry = relayed.Entry(i);
        if (entry.registrationId != handle) continue;
        entry.registrationId = 0;
        memcpy(relayed.list.Item(i), &entry, sizeof entry);
        changed = true;
    }
    return changed ? PassOn(relayed.list.Store()) : TVS_OK;
}

// Nothing is kept beside the records.
#include "notify/registration_lists.h"

#include "base/heap.h"
#include "manager/variable_lookup.h"
#include "notify/caller_array.h"
#include "notify/name_list.h"

namespace {

// Of the handles that a wait takes one is the stop event.
constexpr uint32_t kServedByOneWatcher = MAXIMUM_WAIT_OBJECTS - 1;

// Names and modes of the entries. Of one that is delegated the mode tells it, and the handle is still to come.
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

// The record with its names and without its targets; the names are the caller's.
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

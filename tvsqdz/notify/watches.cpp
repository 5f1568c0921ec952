// The watchers of values that the database has: the default ones, for registrations of any number of variables, and
// those of one variable. State: on the watchers' stacks.
#include "notify/watcher.h"

#include "manager/variables.h"

namespace {

// Delivers each write; those that come during a delivery are told by one more.
void TellWrites(const NotificationRegistration& registration, CallbackValue* value) {
    Watcher watcher(registration, std::min<DWORD>(registration.entryCount, product::SignalWait::kEventsMax),
                    kTrustedInList);
    uint32_t entryOf[product::SignalWait::kEventsMax];
    DWORD count = 0;
    for (uint32_t i = 0; i < registration.entryCount && count < product::SignalWait::kEventsMax; ++i) {
        const NotificationEntry& entry = registration.entries[i];
        if ((entry.mode & NOTIFY_DELEGATED) != 0) continue;
        watcher.Add(entry.variableName,
                    (entry.mode & NOTIFY_ON_UPDATE) != 0 ? product::kEveryWrite : product::kOnlyChanges);
        if (value == nullptr) watcher.TellByWaiter(count, entry);
        entryOf[count++] = i;
    }
    ThreadHasBegun(registration.thread);
    watcher.Run([&](DWORD k) {
        const NotificationEntry& entry = registration.entries[entryOf[k]];
        if (value == nullptr)
            Deliver(entry);
        else
            CallBackWithValue(registration, entry, entryOf[k], *value);
        return kNoLook;
    });
}

// The same for one variable, whose changes alone are told.
void TellChanges(const NotificationRegistration& registration, CallbackValue* value) {
    const NotificationEntry& entry = registration.entries[0];
    Watcher watcher(registration, 1);
    watcher.Add(entry.variableName, product::kOnlyChanges);
    if (value == nullptr) watcher.TellByWaiter(0, entry);
    ThreadHasBegun(registration.thread);
    watcher.Run([&](DWORD) {
        if (value == nullptr)
            Deliver(entry);
        else
            CallBackWithValue(registration, entry, registration.callbackIndex, *value);
        return kNoLook;
    });
}

} // namespace

DWORD WINAPI ChangeWatch(void* parameter) {
    TellWrites(RegistrationOf(parameter), nullptr);
    return kWatchEnded;
}

DWORD WINAPI ChangeCallbackWatch(void* parameter) {
    CallbackValue value(true);
    TellWrites(RegistrationOf(parameter), &value);
    return kWatchEnded;
}

DWORD WINAPI VariableWatch(void* parameter) {
    TellChanges(RegistrationOf(parameter), nullptr);
    return kWatchEnded;
}

DWORD WINAPI VariableCallbackWatch(void* parameter) {
    const NotificationRegistration& registration = RegistrationOf(parameter);
    CallbackValue value(registration.entries[0].valueSize == 0);
    TellChanges(registration, &value);
    return kWatchEnded;
}

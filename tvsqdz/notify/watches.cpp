// The watchers of values that the database has: the default ones, for registrations of any number of variables, and
// those of one variable. State: on the watchers' stacks.
#include "notify/watcher.h"

#include "manager/variables.h"

namespace {

// index: the second argument of a callback. value: null when the entry's event or message tells.
void TellOf(const NotificationRegistration& registration, const NotificationEntry& entry, uint32_t index,
            CallbackValue* value) {
    if (value == nullptr)
        Deliver(entry);
    else
        CallBackWithValue(registration, entry, index, *value);
}

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
        TellOf(registration, registration.entries[entryOf[k]], entryOf[k], value);
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
        TellOf(registration, entry, registration.callbackIndex, value);
        return kNoLook;
    });
}

void RouseAll(ManagerRecord* manager) {
    const ManagerLockHold lock;
    for (ThreadRecord* record = manager->registrations; record != nullptr; record = record->next)
        product::Rouse(record->thread);
}

} // namespace

// No watcher of a variable, but what wakes those of its manager when a service has started: they sleep on one event
// alone.
DWORD WINAPI StartWatch(void* parameter) {
    const NotificationRegistration& registration = RegistrationOf(parameter);
    ManagerRecord* manager = registration.thread.manager;
    product::SignalWait wait(registration.thread.stopEvent);
    KernelHandle started;
    for (product::Woken woken = product::Woken::TimedOut;
         woken != product::Woken::Stopped && woken != product::Woken::Failed;) {
        AwaitStarts(wait, started);
        if (!manager->rousesWatchers.exchange(true)) ThreadHasBegun(registration.thread);
        // Also one that started before the event was looked at.
        if (woken == product::Woken::Started || !ServiceIsKnownToLive(manager->printerDatabase)) RouseAll(manager);
        woken = wait.Wait(started ? g_timings.serviceLook : g_timings.watchRetry);
    }
    manager->rousesWatchers = false;
    return kWatchEnded;
}

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

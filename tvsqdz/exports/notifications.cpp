// The SetNotification and KillNotification exports. A registration whose handle cannot be written to the caller is
// undone. No state.
#include "base/memory.h"
#include "exports/wide_names.h"
#include "manager/variable_index.h"
#include "notify/caller_lists.h"
#include "notify/registrations.h"
#include "notify/relayed_registrations.h"

namespace {

HWND WindowFrom(void* window) {
    return static_cast<HWND>(window);
}

using Cancel = Status (*)(ManagerRecord* manager, TvsRegistration handle);

Status GiveHandle(ManagerRecord* manager, Status status, TvsRegistration made, TvsRegistration* callersHandle,
                  Cancel cancel = KillRegistration) {
    if (status != TVS_OK) return status;
    if (CopyToCaller(callersHandle, &made, sizeof made)) return TVS_OK;
    cancel(manager, made);
    return TVS_E_FAULT;
}

Status RegisterOne(ManagerRecord* manager, const char* callersName, DeliveryForm form, const DeliveryTarget& target,
                   TvsRegistration* callersHandle) {
    const StatusVariableDef* variable = nullptr;
    if (const Status status = FindCallersVariable(manager, callersName, &variable); status != TVS_OK) return status;
    TvsRegistration made = 0;
    const Status status = AddRegistration(manager, *variable, form, target, 0, &made);
    return GiveHandle(manager, status, made, callersHandle);
}

Status RegisterList(ManagerRecord* manager, const RegistrationList& list, TvsRegistration* callersHandle) {
    TvsRegistration made = 0;
    const Status status = AddRegistrationList(manager, list, &made);
    return GiveHandle(manager, status, made, callersHandle);
}

Status RelayOne(ManagerRecord* manager, const char* callersName, HWND window, uint32_t message,
                TvsRegistration* callersHandle) {
    char name[kWatchedNameSize];
    switch (ReadCallerText(name, sizeof name, callersName)) {
    case CallerText::Read:
        break;
    case CallerText::Fault:
        return TVS_E_FAULT;
    case CallerText::TooLong:
        return TVS_E_UNKNOWN;
    }
    TvsRegistration made = 0;
    const Status status = AddRelayedRegistration(manager, name, window, message, &made);
    return GiveHandle(manager, status, made, callersHandle, CancelRelayedRegistration);
}

// How messages of this process are delivered; decided before the manager is looked up.
class MessageCall {
public:
    explicit MessageCall(TvsManager handle) : m_manager(handle) {
        const LibraryCall library;
        if (!library) return;
        relayed = !DeliversMessagesItself();
        if (relayed && !OwnerProcessExists())
            status = TVS_E_NO_OWNER;
        else if (m_manager)
            status = TVS_OK;
    }

    ManagerRecord* Manager() const { return m_manager.Manager(); }

    bool relayed = false;
    Status status = TVS_E_HANDLE;

private:
    ManagerCall m_manager;
};

Status Kill(TvsManager manager, TvsRegistration registration) {
    const ManagerCall call(manager);
    return call ? KillRegistration(call.Manager(), registration) : TVS_E_HANDLE;
}

} // namespace

int32_t TVS_CALL SetNotificationEventA(TvsManager manager, const char* variable, void* event,
                                       TvsRegistration* registration) {
    const ManagerCall call(manager);
    if (!call) return TVS_E_HANDLE;
    return RegisterOne(call.Manager(), variable, DeliveryForm::Event, {reinterpret_cast<UINT_PTR>(event)},
                       registration);
}

int32_t TVS_CALL SetNotificationEventExA(TvsManager manager, uint32_t count, const char* variables, void* const* events,
                                         TvsRegistration* registration) {
    const ManagerCall call(manager);
    if (!call) return TVS_E_HANDLE;
    const RegistrationList list = {.form = DeliveryForm::Event,
                                   .count = count,
                                   .names = variables,
                                   .targets = events,
                                   .window = nullptr,
                                   .numbers = nullptr};
    return RegisterList(call.Manager(), list, registration);
}

int32_t TVS_CALL SetNotificationMsgA(TvsManager manager, const char* variable, void* window, uint32_t message,
                                     TvsRegistration* registration) {
    const MessageCall call(manager);
    if (call.status != TVS_OK) return call.status;
    if (call.relayed) return RelayOne(call.Manager(), variable, WindowFrom(window), message, registration);
    return RegisterOne(call.Manager(), variable, DeliveryForm::Message, {reinterpret_cast<UINT_PTR>(window), message},
                       registration);
}

int32_t TVS_CALL SetNotificationMsgExA(TvsManager manager, uint32_t count, const char* variables, void* window,
                                       const uint32_t* messages, TvsRegistration* registration) {
    const MessageCall call(manager);
    if (call.status != TVS_OK) return call.status;
    TvsRegistration made = 0;
    if (!call.relayed) {
        const Status status =
            AddMessageRegistrationEx(call.Manager(), count, variables, WindowFrom(window), messages, &made);
        return GiveHandle(call.Manager(), status, made, registration);
    }
    const Status status =
        AddRelayedRegistrations(call.Manager(), count, variables, WindowFrom(window), messages, &made);
    return GiveHandle(call.Manager(), status, made, registration, CancelRelayedRegistration);
}

int32_t TVS_CALL SetNotificationCallbackA(TvsManager manager, const char* variable, TvsCallback callback,
                                          uint32_t withoutValue, TvsRegistration* registration) {
    const ManagerCall call(manager);
    if (!call) return TVS_E_HANDLE;
    if (callback == nullptr) return TVS_E_FAULT;
    return RegisterOne(call.Manager(), variable, DeliveryForm::Callback,
                       {reinterpret_cast<UINT_PTR>(callback), withoutValue}, registration);
}

int32_t TVS_CALL SetNotificationCallbackExA(TvsManager manager, uint32_t count, const char* variables,
                                            const TvsCallback* callbacks, const uint32_t* withoutValue,
                                            TvsRegistration* registration) {
    const ManagerCall call(manager);
    if (!call) return TVS_E_HANDLE;
    const RegistrationList list = {.form = DeliveryForm::Callback,
                                   .count = count,
                                   .names = variables,
                                   .targets = callbacks,
                                   .window = nullptr,
                                   .numbers = withoutValue};
    return RegisterList(call.Manager(), list, registration);
}

int32_t TVS_CALL KillNotificationEvent(TvsManager manager, TvsRegistration registration) {
    return Kill(manager, registration);
}

int32_t TVS_CALL KillNotificationCallback(TvsManager manager, TvsRegistration registration) {
    return Kill(manager, registration);
}

int32_t TVS_CALL KillNotificationMsg(TvsManager manager, TvsRegistration registration) {
    const MessageCall call(manager);
    if (call.status != TVS_OK) return call.status;
    // The process may have relayed it before it opened a manager of another kind.
    return call.relayed || IsRelayed(call.Manager(), registration)
               ? CancelRelayedRegistration(call.Manager(), registration)
               : KillRegistration(call.Manager(), registration);
}

namespace {

// With count 0 the list is not read.
template <typename AnsiForm> // Status(const char* names)
Status WithNames(TvsManager manager, uint32_t count, const WCHAR* callersNames, AnsiForm ansiForm) {
    HeapBlock names;
    const Status status = count > 0 ? CopyCallersNames(callersNames, &names) : TVS_OK;
    return status == TVS_OK ? ansiForm(reinterpret_cast<const char*>(names.memory)) : RefuseName(manager, status);
}

} // namespace

int32_t TVS_CALL SetNotificationEventW(TvsManager manager, const TvsWideChar* variable, void* event,
                                       TvsRegistration* registration) {
    return WithName(manager, variable,
                    [&](const char* name) { return SetNotificationEventA(manager, name, event, registration); });
}

int32_t TVS_CALL SetNotificationEventExW(TvsManager manager, uint32_t count, const TvsWideChar* variables,
                                         void* const* events, TvsRegistration* registration) {
    return WithNames(manager, count, variables, [&](const char* names) {
        return SetNotificationEventExA(manager, count, names, events, registration);
    });
}

int32_t TVS_CALL SetNotificationMsgW(TvsManager manager, const TvsWideChar* variable, void* window, uint32_t message,
                                     TvsRegistration* registration) {
    return WithName(manager, variable, [&](const char* name) {
        return SetNotificationMsgA(manager, name, window, message, registration);
    });
}

int32_t TVS_CALL SetNotificationMsgExW(TvsManager manager, uint32_t count, const TvsWideChar* variables, void* window,
                                       const uint32_t* messages, TvsRegistration* registration) {
    return WithNames(manager, count, variables, [&](const char* names) {
        return SetNotificationMsgExA(manager, count, names, window, messages, registration);
    });
}

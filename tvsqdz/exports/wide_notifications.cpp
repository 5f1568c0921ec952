// The wide exports of notification: the names are converted, and the ANSI forms do the rest.
#include "exports/wide_names.h"
#include "notify/name_list.h"

namespace {

// A list without names is not looked at.
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

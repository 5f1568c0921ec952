#include "notification_kit.h"

#include "notify/delivery.h"

Calls g_calls[4];

namespace {

template <int number>
void TVS_CALL Record(TvsManager manager, uint32_t index, const char* variable, const void* value, uint32_t size) {
    Calls& calls = g_calls[number];
    calls.manager = manager;
    calls.index = index;
    calls.hadValue = value != nullptr;
    {
        const std::lock_guard hold(calls.lock);
        const auto* bytes = static_cast<const uint8_t*>(value);
        calls.value.assign(bytes, bytes + size);
        calls.variables += std::string(variable) + ";";
    }
    if (calls.work) calls.work();
    ++calls.count;
}

} // namespace

Bytes Calls::Value() {
    const std::lock_guard hold(lock);
    return value;
}

std::string Calls::Variables() {
    const std::lock_guard hold(lock);
    return variables;
}

TvsCallback CallbackOf(int number) {
    constexpr TvsCallback kCallbacks[] = {Record<0>, Record<1>, Record<2>, Record<3>};
    return kCallbacks[number];
}

Registrant::Registrant(Form form, TvsManager manager, const std::string& variable, int number)
    : m_form(form), m_manager(manager), m_number(number), m_seen(g_calls[number].count) {
    int32_t status = TVS_OK;
    if (form == Form::Event)
        status = SetNotificationEventA(manager, variable.c_str(), m_event = NewEvent(), &handle);
    else if (form == Form::Message)
        status = SetNotificationMsgA(manager, variable.c_str(), m_window = MakeWindow("Registrant"), kMessage + number,
                                     &handle);
    else
        status = SetNotificationCallbackA(manager, variable.c_str(), CallbackOf(number), 0, &handle);
    EXPECT_EQ(status, TVS_OK) << variable;
}

Registrant::~Registrant() {
    if (handle != 0) Cancel();
    if (m_event != nullptr) CloseHandle(m_event);
    if (m_window != nullptr) DestroyWindow(m_window);
}

int32_t Registrant::Cancel() {
    const TvsRegistration cancelled = handle;
    handle = 0;
    return m_form == Form::Message ? KillNotificationMsg(m_manager, cancelled)
                                   : KillNotificationEvent(m_manager, cancelled);
}

int Registrant::Told(int timeoutMs) {
    int told = 0;
    WaitUntil(
        [&] {
            MSG message;
            if (m_form == Form::Event) told = IsSet(m_event, 0);
            if (m_form == Form::Callback) told = g_calls[m_number].count - m_seen;
            while (m_form == Form::Message && PeekMessageA(&message, m_window, 0, 0, PM_REMOVE))
                told += message.message == kMessage + m_number && message.wParam == 0 && message.lParam == 0;
            return told != 0;
        },
        timeoutMs);
    if (m_form == Form::Callback) m_seen += told;
    return told;
}

const NotificationRegistration* RegistrationAt(TvsRegistration handle) {
    return reinterpret_cast<const NotificationRegistration*>(handle);
}

int RegistrationCount(TvsManager manager) {
    const ManagerLockHold lock;
    int count = 0;
    for (const ThreadRecord* record = FindManager(manager)->registrations; record != nullptr; record = record->next)
        ++count;
    return count;
}

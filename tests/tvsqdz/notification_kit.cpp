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

HWND MakeWindow(const char* className) {
    WNDCLASSEXA windowClass = {};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = DefWindowProcA;
    windowClass.lpszClassName = className;
    RegisterClassExA(&windowClass); // it may exist
    const HWND window = CreateWindowExA(0, className, "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_NE(window, nullptr) << GetLastError();
    return window;
}

Registrant::Registrant(Form form, TvsManager manager, const std::string& variable, int number)
    : m_form(form), m_manager(manager), m_number(number) {
    switch (form) {
    case Form::Event:
        m_event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        status = SetNotificationEventA(manager, variable.c_str(), m_event, &handle);
        break;
    case Form::Message:
        m_window = MakeWindow("Registrant");
        status = SetNotificationMsgA(manager, variable.c_str(), m_window, kMessage + number, &handle);
        break;
    case Form::Callback:
        m_seen = g_calls[number].count;
        status = SetNotificationCallbackA(manager, variable.c_str(), CallbackOf(number), 0, &handle);
        break;
    }
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

int Registrant::Take() {
    int taken = 0;
    MSG message;
    switch (m_form) {
    case Form::Event:
        return WaitForSingleObject(m_event, 0) == WAIT_OBJECT_0 ? 1 : 0;
    case Form::Message:
        while (PeekMessageA(&message, m_window, 0, 0, PM_REMOVE))
            taken += message.message == kMessage + m_number && message.wParam == 0 && message.lParam == 0;
        return taken;
    case Form::Callback:
        taken = g_calls[m_number].count - m_seen;
        m_seen += taken;
        return taken;
    }
    return 0;
}

int Registrant::Told(int timeoutMs) {
    int told = 0;
    WaitUntil([&] { return (told = Take()) != 0; }, timeoutMs);
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

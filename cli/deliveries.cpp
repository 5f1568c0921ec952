// The three forms. Events are waited for directly; messages arrive at a window that a thread of its own owns, and calls
// on threads of the library: both pass through one queue.
//
// State: g_called, the queue of the process that calls go to.
#include "deliveries.h"

#include <deque>

namespace {

std::string NameList(const std::vector<const Variable*>& variables) {
    std::string names;
    for (const Variable* variable : variables)
        names += variable->name + ";";
    return names;
}

KernelHandle NewEvent(bool manualReset) {
    KernelHandle event(CreateEventA(nullptr, manualReset, FALSE, nullptr));
    if (!event) throw SystemFailure(GetLastError(), "cannot create an event");
    return event;
}

void Check(int32_t status, const OpenedPrinter& printer) {
    if (status == TVS_OK) return;
    Failure failure = StatusFailure(status, "cannot watch the variables of \"" + printer.shownName + "\"");
    if (status == TVS_E_NO_OWNER)
        failure.next = "its owner's process posts the messages of this kind of manager: open one of kind 6, or "
                       "watch with another --kind";
    throw failure;
}

// A registration that is cancelled when it goes.
struct Registration {
    explicit Registration(const OpenedPrinter& opened) : printer(opened) {}
    ~Registration() {
        if (handle) cancel(printer.manager.Get(), handle);
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    const OpenedPrinter& printer;
    int32_t(TVS_CALL* cancel)(TvsManager, TvsRegistration) = &KillNotificationEvent;
    TvsRegistration handle = 0;
};

// ---- events

struct EventDeliveries : Deliveries {
    EventDeliveries(const OpenedPrinter& printer, const std::vector<const Variable*>& variables)
        : registration(printer) {
        std::vector<void*> handles;
        for (size_t i = 0; i < variables.size(); ++i) {
            events.push_back(NewEvent(false));
            handles.push_back(events.back().Get());
        }
        Check(SetNotificationEventExA(printer.manager.Get(), static_cast<uint32_t>(variables.size()),
                                      NameList(variables).c_str(), handles.data(), &registration.handle),
              printer);
    }

    std::optional<size_t> Next(DWORD timeoutMs, HANDLE interrupted) override {
        std::vector<HANDLE> handles{interrupted};
        for (const KernelHandle& event : events)
            handles.push_back(event.Get());
        const DWORD result =
            WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, timeoutMs);
        if (result == WAIT_FAILED) throw SystemFailure(GetLastError(), "cannot wait for changes");
        if (result == WAIT_TIMEOUT || result == WAIT_OBJECT_0) return std::nullopt;
        return result - WAIT_OBJECT_0 - 1;
    }

    std::vector<KernelHandle> events;
    Registration registration; // goes first
};

// ---- the queue of the other forms

struct Queue {
    Queue() : bell(NewEvent(false)) { InitializeCriticalSection(&lock); }
    ~Queue() { DeleteCriticalSection(&lock); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void Push(size_t place) {
        EnterCriticalSection(&lock);
        places.push_back(place);
        LeaveCriticalSection(&lock);
        SetEvent(bell.Get());
    }
    std::optional<size_t> Pop() {
        std::optional<size_t> place;
        EnterCriticalSection(&lock);
        if (!places.empty()) {
            place = places.front();
            places.pop_front();
        }
        LeaveCriticalSection(&lock);
        return place;
    }
    std::optional<size_t> Next(DWORD timeoutMs, HANDLE interrupted) {
        if (const std::optional<size_t> place = Pop()) return place;
        const HANDLE handles[] = {interrupted, bell.Get()};
        if (WaitForMultipleObjects(2, handles, FALSE, timeoutMs) == WAIT_FAILED)
            throw SystemFailure(GetLastError(), "cannot wait for changes");
        return Pop();
    }

    CRITICAL_SECTION lock;
    std::deque<size_t> places;
    KernelHandle bell;
};

// ---- calls

Queue* g_called = nullptr;

void TVS_CALL OnCall(TvsManager, uint32_t place, const char*, const void*, uint32_t) {
    g_called->Push(place);
}

struct CallbackDeliveries : Deliveries {
    CallbackDeliveries(const OpenedPrinter& printer, const std::vector<const Variable*>& variables)
        : registration(printer) {
        g_called = &queue;
        registration.cancel = &KillNotificationCallback;
        const std::vector<TvsCallback> callbacks(variables.size(), &OnCall);
        // All three forms read the value in the same way, when they were told.
        const std::vector<uint32_t> withoutValue(variables.size(), 1);
        Check(SetNotificationCallbackExA(printer.manager.Get(), static_cast<uint32_t>(variables.size()),
                                         NameList(variables).c_str(), callbacks.data(), withoutValue.data(),
                                         &registration.handle),
              printer);
    }

    std::optional<size_t> Next(DWORD timeoutMs, HANDLE interrupted) override {
        return queue.Next(timeoutMs, interrupted);
    }

    Queue queue;
    Registration registration; // goes first
};

// ---- messages

constexpr char kWindowClass[] = "OrielWatch";

LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_DESTROY) PostQuitMessage(0);
    return DefWindowProcA(window, message, wParam, lParam);
}

// A window and the thread that owns it. Every message from WM_APP on goes to the queue.
struct MessageWindow {
    explicit MessageWindow(Queue& queue) : m_queue(queue), m_ready(NewEvent(true)) {
        m_thread = KernelHandle(CreateThread(nullptr, 0, &Run, this, 0, nullptr));
        if (!m_thread) throw SystemFailure(GetLastError(), "cannot start a thread");
        WaitForSingleObject(m_ready.Get(), INFINITE); // the thread sets it whatever happens
        if (window == nullptr) {
            WaitForSingleObject(m_thread.Get(), INFINITE);
            throw SystemFailure(m_error, "cannot create a window");
        }
    }
    ~MessageWindow() {
        // A full queue refuses for as long as the thread needs to empty it.
        while (!PostMessageA(window, WM_CLOSE, 0, 0) && GetLastError() == ERROR_NOT_ENOUGH_QUOTA)
            Sleep(1);
        WaitForSingleObject(m_thread.Get(), INFINITE); // it does nothing else but read messages
    }
    MessageWindow(const MessageWindow&) = delete;
    MessageWindow& operator=(const MessageWindow&) = delete;

    HWND window = nullptr;

private:
    static DWORD WINAPI Run(void* self) {
        static_cast<MessageWindow*>(self)->Serve();
        return 0;
    }
    void Serve() {
        WNDCLASSEXA windowClass{};
        windowClass.cbSize = sizeof windowClass;
        windowClass.lpfnWndProc = &WindowProcedure;
        windowClass.lpszClassName = kWindowClass;
        if (RegisterClassExA(&windowClass))
            window = CreateWindowExA(0, kWindowClass, "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
        m_error = GetLastError();
        SetEvent(m_ready.Get());
        if (window == nullptr) return;
        MSG message;
        while (GetMessageA(&message, nullptr, 0, 0) > 0)
            if (message.message >= WM_APP)
                m_queue.Push(message.message - WM_APP);
            else
                DispatchMessageA(&message);
    }

    Queue& m_queue;
    DWORD m_error = ERROR_SUCCESS;
    KernelHandle m_ready;
    KernelHandle m_thread;
};

struct MessageDeliveries : Deliveries {
    MessageDeliveries(const OpenedPrinter& printer, const std::vector<const Variable*>& variables)
        : window(queue), registration(printer) {
        registration.cancel = &KillNotificationMsg;
        std::vector<uint32_t> messages;
        for (size_t i = 0; i < variables.size(); ++i)
            messages.push_back(static_cast<uint32_t>(WM_APP + i));
        Check(SetNotificationMsgExA(printer.manager.Get(), static_cast<uint32_t>(variables.size()),
                                    NameList(variables).c_str(), window.window, messages.data(), &registration.handle),
              printer);
    }

    std::optional<size_t> Next(DWORD timeoutMs, HANDLE interrupted) override {
        return queue.Next(timeoutMs, interrupted);
    }

    Queue queue;
    MessageWindow window;
    Registration registration; // goes first
};

} // namespace

std::unique_ptr<Deliveries> Register(const OpenedPrinter& printer, const std::vector<const Variable*>& variables,
                                     DeliveredBy by) {
    switch (by) {
    case DeliveredBy::Event:
        return std::make_unique<EventDeliveries>(printer, variables);
    case DeliveredBy::Message:
        return std::make_unique<MessageDeliveries>(printer, variables);
    case DeliveredBy::Callback:
        break;
    }
    return std::make_unique<CallbackDeliveries>(printer, variables);
}

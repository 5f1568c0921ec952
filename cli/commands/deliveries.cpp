// The three forms. The caller waits for events directly. Messages arrive at a window with a thread of its own,
// callbacks on threads of the library; both pass through one queue.
//
// State: g_called, the queue that callbacks write to. A process has one such watch at a time.
#include "commands/deliveries.h"

#include <algorithm>
#include <deque>

namespace {

KernelHandle NewEvent(bool manualReset) {
    KernelHandle event(CreateEventA(nullptr, manualReset, FALSE, nullptr));
    if (!event) throw SystemFailure(GetLastError(), "cannot create an event");
    return event;
}

void Check(int32_t status, const OpenedPrinter& printer) {
    if (status == TVS_OK) return;
    Failure failure = StatusFailure(status, "cannot watch the variables of \"" + printer.shownName + "\"");
    if (status == TVS_E_NO_OWNER)
        failure.next = "messages of this client kind come from the owner's process: open a manager of kind 6 first, or "
                       "use another --kind";
    throw failure;
}

// The most variables that one call of the library takes.
constexpr size_t kMostInList = 63;

// Registrations, cancelled with the guard.
struct Registrations {
    using Cancel = int32_t(TVS_CALL*)(TvsManager, TvsRegistration);

    Registrations(const OpenedPrinter& opened, Cancel cancelOne) : printer(opened), cancel(cancelOne) {}
    ~Registrations() {
        for (const TvsRegistration handle : handles)
            cancel(printer.manager.Get(), handle);
    }
    Registrations(const Registrations&) = delete;
    Registrations& operator=(const Registrations&) = delete;

    // one: int32_t(uint32_t count, const char* names, size_t first, TvsRegistration* handle).
    template <typename One>
    void Add(const std::vector<const Variable*>& variables, One one) {
        for (size_t first = 0; first < variables.size(); first += kMostInList) {
            const size_t count = std::min(kMostInList, variables.size() - first);
            std::string names;
            for (size_t i = first; i < first + count; ++i)
                names += variables[i]->name + ";";
            TvsRegistration handle = 0;
            Check(one(static_cast<uint32_t>(count), names.c_str(), first, &handle), printer);
            handles.push_back(handle);
        }
    }

    const OpenedPrinter& printer;
    Cancel cancel;
    std::vector<TvsRegistration> handles;
};

// ---- events

// The most events that can be waited for together with the interrupt. More variables share them.
constexpr size_t kMostEvents = MAXIMUM_WAIT_OBJECTS - kOtherHandles;

struct EventDeliveries : Deliveries {
    EventDeliveries(const OpenedPrinter& printer, const std::vector<const Variable*>& variables)
        : count(variables.size()), registrations(printer, &KillNotificationEvent) {
        std::vector<void*> handles;
        for (size_t i = 0; i < count; ++i) {
            if (i < kMostEvents) events.push_back(NewEvent(false));
            handles.push_back(events[i % kMostEvents].Get());
        }
        registrations.Add(variables, [&](uint32_t size, const char* names, size_t first, TvsRegistration* handle) {
            return SetNotificationEventExA(printer.manager.Get(), size, names, &handles[first], handle);
        });
    }

    std::optional<size_t> Next(DWORD timeoutMs, const std::vector<HANDLE>& others) override {
        if (due.empty()) Wait(timeoutMs, others);
        if (due.empty()) return std::nullopt;
        const size_t place = due.front();
        due.pop_front();
        return place;
    }

    void Wait(DWORD timeoutMs, const std::vector<HANDLE>& others) {
        std::vector<HANDLE> handles = others;
        for (const KernelHandle& event : events)
            handles.push_back(event.Get());
        const DWORD result =
            WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, timeoutMs);
        if (result == WAIT_FAILED) throw SystemFailure(GetLastError(), "cannot wait for changes");
        if (result == WAIT_TIMEOUT || result < WAIT_OBJECT_0 + others.size()) return;
        for (size_t place = result - WAIT_OBJECT_0 - others.size(); place < count; place += kMostEvents)
            due.push_back(place);
    }

    size_t count;
    std::vector<KernelHandle> events;
    std::deque<size_t> due;
    Registrations registrations; // destroyed first
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
    std::optional<size_t> Next(DWORD timeoutMs, const std::vector<HANDLE>& others) {
        if (const std::optional<size_t> place = Pop()) return place;
        std::vector<HANDLE> handles = others;
        handles.push_back(bell.Get());
        if (WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, timeoutMs) == WAIT_FAILED)
            throw SystemFailure(GetLastError(), "cannot wait for changes");
        return Pop();
    }

    CRITICAL_SECTION lock;
    std::deque<size_t> places;
    KernelHandle bell;
};

// ---- calls

// Where callbacks go: the queue, and the variables' names in order, since a callback brings a name and not an index.
struct Called {
    Queue& queue;
    std::vector<std::string> names;
};
Called* g_called = nullptr;

void TVS_CALL OnCall(TvsManager, uint32_t, const char* variable, const void*, uint32_t) {
    const auto place = std::find(g_called->names.begin(), g_called->names.end(), variable);
    if (place != g_called->names.end()) g_called->queue.Push(static_cast<size_t>(place - g_called->names.begin()));
}

struct CallbackDeliveries : Deliveries {
    CallbackDeliveries(const OpenedPrinter& printer, const std::vector<const Variable*>& variables)
        : called{queue, {}}, registrations(printer, &KillNotificationCallback) {
        for (const Variable* variable : variables)
            called.names.push_back(variable->name);
        g_called = &called;
        const std::vector<TvsCallback> callbacks(variables.size(), &OnCall);
        // The value that a callback brings is ignored: all three forms read it in the same way.
        const std::vector<uint32_t> withoutValue(variables.size(), 1);
        registrations.Add(variables, [&](uint32_t size, const char* names, size_t first, TvsRegistration* handle) {
            return SetNotificationCallbackExA(printer.manager.Get(), size, names, &callbacks[first],
                                              &withoutValue[first], handle);
        });
    }

    std::optional<size_t> Next(DWORD timeoutMs, const std::vector<HANDLE>& others) override {
        return queue.Next(timeoutMs, others);
    }

    Queue queue;
    Called called;
    Registrations registrations; // destroyed first
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
        // Posting fails while the queue is full; the thread is emptying it.
        while (!PostMessageA(window, WM_CLOSE, 0, 0) && GetLastError() == ERROR_NOT_ENOUGH_QUOTA)
            Sleep(1);
        WaitForSingleObject(m_thread.Get(), INFINITE); // it only reads messages
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
        // The class stays registered until the process ends.
        if (RegisterClassExA(&windowClass) || GetLastError() == ERROR_CLASS_ALREADY_EXISTS)
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
        : window(queue), registrations(printer, &KillNotificationMsg) {
        std::vector<uint32_t> messages;
        for (size_t i = 0; i < variables.size(); ++i)
            messages.push_back(static_cast<uint32_t>(WM_APP + i));
        registrations.Add(variables, [&](uint32_t size, const char* names, size_t first, TvsRegistration* handle) {
            return SetNotificationMsgExA(printer.manager.Get(), size, names, window.window, &messages[first], handle);
        });
    }

    std::optional<size_t> Next(DWORD timeoutMs, const std::vector<HANDLE>& others) override {
        return queue.Next(timeoutMs, others);
    }

    Queue queue;
    MessageWindow window;
    Registrations registrations; // destroyed first
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

// Creating and destroying windows, finding and listing them, querying them. State: the queues (thread_queue.cpp) and
// the files (window_files.h).
#include "base/call.h"
#include "base/futex.h"
#include "window/thread_queue.h"
#include "window/window_files.h"

#include <algorithm>
#include <cstring>
#include <errhandlingapi.h>
#include <processthreadsapi.h>
#include <winuser.h>

namespace oriel {
namespace {

bool IsPlain(int place) {
    return place == 0 || place == CW_USEDEFAULT;
}

bool Publish(const Window& window, const char* title) {
    WindowRecord record{};
    record.magic = kWindowRecordMagic;
    record.version = kWindowRecordVersion;
    record.handle = HandleNumber(window.handle);
    record.processId = GetCurrentProcessId();
    record.threadId = GetCurrentThreadId();
    record.created = static_cast<ULONGLONG>(MonotonicNs());
    std::strncpy(record.className, window.windowClass.name.c_str(), sizeof record.className - 1);
    std::strncpy(record.title, title, sizeof record.title - 1);
    return PublishWindow(record);
}

HWND Create(ThreadQueue& queue, const WindowClass& windowClass, const char* title) {
    // The first window of a process also removes what killed processes left, in case nobody ever searches.
    if (queue.windows.empty()) VisitWindows([](const WindowRecord&) {});
    const auto window = std::make_shared<Window>(windowClass);
    DWORD handle = 0;
    window->fifo = CreateFifo(Fifo::Queue, handle);
    if (!window->fifo.IsOpen()) return nullptr;
    window->handle = ULongToHandle(handle);
    if (!AddWindow(queue, window)) {
        RemoveWindow(handle);
        return nullptr;
    }
    if (Publish(*window, title)) return window->handle;
    DropWindow(queue, window);
    return nullptr;
}

// The record of a live window, for queries.
bool Describe(HWND window, WindowRecord& record) {
    if (IsWindowNumber(window)) return ReadWindow(HandleNumber(window), record);
    return Fail(ERROR_INVALID_WINDOW_HANDLE, false);
}

int CopyText(const char* text, LPSTR buffer, int size) {
    const size_t length = std::min(std::strlen(text), static_cast<size_t>(size) - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
    return static_cast<int>(length);
}

} // namespace
} // namespace oriel

using namespace oriel;

HWND WINAPI CreateWindowExA(DWORD exStyle, LPCSTR className, LPCSTR windowName, DWORD style, int x, int y, int width,
                            int height, HWND parent, HMENU menu, HINSTANCE instance, LPVOID parameter) {
    return Call<HWND>(nullptr, [=]() -> HWND {
        const char* title = windowName != nullptr ? windowName : "";
        if (exStyle != 0 || style != WS_OVERLAPPED || !IsPlain(x) || !IsPlain(y) || !IsPlain(width) ||
            !IsPlain(height) || parent != nullptr || menu != nullptr || parameter != nullptr ||
            strnlen(title, ORIEL_MAX_WINDOW_TEXT + 1) > ORIEL_MAX_WINDOW_TEXT)
            return Fail(ERROR_INVALID_PARAMETER, nullptr);
        ThreadQueue* queue = MakeOwnQueue();
        if (queue == nullptr) return nullptr;
        const WindowClass* windowClass = FindWindowClass(className, instance);
        return windowClass != nullptr ? Create(*queue, *windowClass, title) : nullptr;
    });
}

BOOL WINAPI DestroyWindow(HWND handle) {
    return WaitingCall<BOOL>(FALSE, [=] {
        ThreadQueue* queue = OwnQueue();
        const std::shared_ptr<Window> window = FindOwnWindow(queue, handle);
        if (window == nullptr || window->destroying)
            return Fail(window == nullptr && IsWindow(handle) ? ERROR_ACCESS_DENIED : ERROR_INVALID_WINDOW_HANDLE);
        window->destroying = true;
        window->procedure(handle, WM_DESTROY, 0, 0);
        DropWindow(*queue, window);
        return TRUE;
    });
}

LRESULT WINAPI DefWindowProcA(HWND window, UINT message, WPARAM, LPARAM) {
    if (message == WM_CLOSE) DestroyWindow(window);
    return 0;
}

HWND WINAPI FindWindowA(LPCSTR className, LPCSTR windowName) {
    return Call<HWND>(nullptr, [=]() -> HWND {
        const auto number = reinterpret_cast<ULONG_PTR>(className);
        if (number != 0 && number < 0x10000) return Fail(ERROR_INVALID_PARAMETER, nullptr);
        DWORD handle = 0;
        ULONGLONG created = 0;
        VisitWindows([&](const WindowRecord& record) {
            if (handle != 0 && record.created <= created) return;
            if (className != nullptr && !EqualWithoutCase(record.className, className)) return;
            if (windowName != nullptr && !EqualWithoutCase(record.title, windowName)) return;
            handle = record.handle;
            created = record.created;
        });
        if (handle == 0) SetLastError(ERROR_FILE_NOT_FOUND);
        return ULongToHandle(handle);
    });
}

BOOL WINAPI EnumWindows(WNDENUMPROC procedure, LPARAM parameter) {
    return WaitingCall<BOOL>(FALSE, [=] {
        if (procedure == nullptr) return Fail(ERROR_INVALID_PARAMETER);
        struct Entry {
            ULONGLONG created;
            HWND window;
        };
        std::vector<Entry> windows;
        VisitWindows([&](const WindowRecord& record) {
            windows.push_back({record.created, ULongToHandle(record.handle)});
        });
        std::sort(windows.begin(), windows.end(), [](const Entry& a, const Entry& b) { return a.created > b.created; });
        for (const Entry& entry : windows)
            if (IsWindow(entry.window) && !procedure(entry.window, parameter)) return FALSE;
        return TRUE;
    });
}

int WINAPI GetClassNameA(HWND window, LPSTR buffer, int size) {
    return Call(0, [=] {
        WindowRecord record;
        if (buffer == nullptr || size <= 0) return Fail(ERROR_INVALID_PARAMETER, 0);
        return Describe(window, record) ? CopyText(record.className, buffer, size) : 0;
    });
}

DWORD WINAPI GetWindowThreadProcessId(HWND window, LPDWORD processId) {
    return Call<DWORD>(0, [=]() -> DWORD {
        WindowRecord record;
        if (!Describe(window, record)) return 0;
        if (processId != nullptr) *processId = record.processId;
        return record.threadId;
    });
}

BOOL WINAPI IsWindow(HWND window) {
    return Call<BOOL>(FALSE,
                      [=] { return IsWindowNumber(window) && OpenFifo(Fifo::Queue, HandleNumber(window)).IsOpen(); });
}

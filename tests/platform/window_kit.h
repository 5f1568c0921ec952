// Windows for tests: making them, reading their messages with a deadline, handing their handles to other processes.
#pragma once

#include "win32_kit.h"

inline ATOM RegisterTestClass(const char* name, WNDPROC procedure) {
    WNDCLASSEXA windowClass{};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = procedure;
    windowClass.lpszClassName = name;
    return RegisterClassExA(&windowClass);
}

inline HWND CreateTestWindow(const char* className, const char* title = "") {
    return CreateWindowExA(0, className, title, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

inline HWND MakeWindow(const char* className, const char* title = "", WNDPROC procedure = DefWindowProcA) {
    RegisterTestClass(className, procedure);
    const HWND window = CreateTestWindow(className, title);
    EXPECT_NE(window, nullptr) << GetLastError();
    return window;
}

inline HWND WindowOf(ULONG_PTR number) {
    return reinterpret_cast<HWND>(number);
}

inline std::string ToText(HWND window) {
    return std::to_string(HandleToULong(window));
}

inline HWND ToWindow(const std::string& text) {
    return WindowOf(std::stoul(text));
}

// Takes the next message; false when none came in time.
inline bool TakeMessage(MSG& message, HWND window = nullptr, int timeoutMs = 10000) {
    return WaitUntil([&] { return PeekMessageA(&message, window, 0, 0, PM_REMOVE) != FALSE; }, timeoutMs);
}

inline bool QueueIsEmpty() {
    MSG message;
    return PeekMessageA(&message, nullptr, 0, 0, PM_NOREMOVE) == FALSE;
}

// Reads and dispatches until WM_QUIT; its exit code, or -1.
inline int RunMessageLoop() {
    MSG message;
    BOOL more = FALSE;
    while ((more = GetMessageA(&message, nullptr, 0, 0)) != 0 && more != -1)
        DispatchMessageA(&message);
    return more == 0 ? static_cast<int>(message.wParam) : -1;
}

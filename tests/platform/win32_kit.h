// What most tests of the layer need, over Win32 alone.
#pragma once

#include "not_here.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <memory>

// The last error before a call that leaves it alone.
constexpr DWORD kSentinel = 0xBEEF;

// The call fails, with this error.
#define EXPECT_FAILS(call, error)                                                                                      \
    do {                                                                                                               \
        SetLastError(kSentinel);                                                                                       \
        EXPECT_FALSE(call);                                                                                            \
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(error)) << #call;                                                 \
    } while (false)

// The error of a call that failed, else ERROR_SUCCESS.
inline DWORD Code(bool succeeded) {
    return succeeded ? ERROR_SUCCESS : GetLastError();
}

// A handle that is closed with its guard.
class Owned {
public:
    Owned(HANDLE handle = nullptr) : m_handle(handle) {}
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() { Close(); }
    operator HANDLE() const { return m_handle; }
    bool Close() {
        const HANDLE handle = m_handle;
        m_handle = nullptr;
        return handle == nullptr || CloseHandle(handle);
    }

private:
    HANDLE m_handle;
};

inline DWORD Look(HANDLE handle) {
    return WaitForSingleObject(handle, 0);
}

// Waits with a deadline that only a fault lets pass.
inline DWORD Wait(HANDLE handle, DWORD milliseconds = 20000) {
    return WaitForSingleObject(handle, milliseconds);
}

// Runs a procedure on a thread of CreateThread. The handle is the caller's.
inline HANDLE StartThread(std::function<DWORD()> procedure, DWORD* id = nullptr) {
    const auto run = [](LPVOID parameter) -> DWORD {
        const std::unique_ptr<std::function<DWORD()>> owned(static_cast<std::function<DWORD()>*>(parameter));
        return (*owned)();
    };
    return CreateThread(nullptr, 65536, run, new std::function<DWORD()>(std::move(procedure)), 0, id);
}

// What the thread returned; fails the test when it does not end.
inline DWORD Finish(HANDLE thread) {
    EXPECT_EQ(Wait(thread, 60000), DWORD{WAIT_OBJECT_0});
    DWORD code = 0xDEAD;
    EXPECT_TRUE(GetExitCodeThread(thread, &code)) << GetLastError();
    return code;
}

inline DWORD OnAThread(std::function<DWORD()> procedure) {
    return Finish(Owned(StartThread(std::move(procedure))));
}

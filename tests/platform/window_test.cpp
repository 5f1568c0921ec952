// Classes and windows: making, finding, listing, describing and losing them, in one process and in several.
#include "kit.h"

#include <atomic>
#include <vector>

namespace {

LRESULT CALLBACK QuitWithWindow(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_DESTROY) PostQuitMessage(7);
    return DefWindowProcA(window, message, wParam, lParam);
}

// Has windows with the titles given, and serves them until one is destroyed.
CHILD_PROCESS(OwnsWindows) {
    for (const std::string& title : child.arguments)
        child.Say(ToText(MakeWindow(title.c_str(), QuitWithWindow)));
    return RunMessageLoop();
}

BOOL CALLBACK AppendWindow(HWND window, LPARAM parameter) {
    char name[5] = "";
    GetClassNameA(window, name, sizeof name);
    // Windows has windows of its own.
    if (std::string(name) == "TVOR") reinterpret_cast<std::vector<HWND>*>(parameter)->push_back(window);
    return TRUE;
}

std::vector<HWND> AllWindows() {
    std::vector<HWND> windows;
    EXPECT_TRUE(EnumWindows(AppendWindow, reinterpret_cast<LPARAM>(&windows)));
    return windows;
}

} // namespace

TEST(Window, DescribesItselfAndTakesOnlyPlainParameters) {
    const std::string longest(OnTheLayer() ? 256 : 255, 'c'), tooLong(257, 'c'); // Windows counts the NUL
    const ATOM first = RegisterTestClass("TVORTestClass", DefWindowProcA);
    const ATOM second = RegisterTestClass(longest.c_str(), DefWindowProcA);
    EXPECT_TRUE(first != 0 && second != 0 && first != second);
    EXPECT_FAILS(RegisterTestClass("tvortestCLASS", DefWindowProcA), ERROR_CLASS_ALREADY_EXISTS);
    EXPECT_FALSE(CreateTestWindow("Other"));
    if (OnTheLayer()) {
        EXPECT_FAILS(CreateTestWindow("Other"), ERROR_CANNOT_FIND_WND_CLASS);
        EXPECT_FAILS(RegisterTestClass(tooLong.c_str(), DefWindowProcA), ERROR_INVALID_PARAMETER);
        EXPECT_FAILS(CreateTestWindow("TVORTestClass", tooLong.c_str()), ERROR_INVALID_PARAMETER);
    }

    const HWND window = CreateTestWindow("TVORTESTCLASS", "A title");
    char text[260] = "";
    DWORD process = 0;
    EXPECT_EQ(GetClassNameA(window, text, 5), 4);
    EXPECT_STREQ(text, "TVOR");
    EXPECT_EQ(GetWindowThreadProcessId(window, &process), GetCurrentThreadId());
    EXPECT_EQ(process, GetCurrentProcessId());
}

TEST(Window, StaleAndForeignHandlesAreRefused) {
    const HWND stale = MakeWindow();
    ASSERT_TRUE(DestroyWindow(stale));
    std::vector<HWND> windows = {stale, WindowOf(0x7fffffff)};
    // These are the thread's queue and everybody's windows to Windows.
    if (OnTheLayer()) windows.insert(windows.end(), {HWND{}, WindowOf(0xffff)});
    for (const HWND window : windows) {
        char text[16];
        DWORD process;
        EXPECT_FALSE(IsWindow(window));
        EXPECT_FAILS(PostMessageA(window, WM_APP, 0, 0), ERROR_INVALID_WINDOW_HANDLE);
        EXPECT_FAILS(SendMessageTimeoutA(window, WM_APP, 0, 0, SMTO_NORMAL, 10, nullptr), ERROR_INVALID_WINDOW_HANDLE);
        EXPECT_FAILS(DestroyWindow(window), ERROR_INVALID_WINDOW_HANDLE);
        EXPECT_FAILS(GetClassNameA(window, text, sizeof text), ERROR_INVALID_WINDOW_HANDLE);
        EXPECT_FAILS(GetWindowThreadProcessId(window, &process), ERROR_INVALID_WINDOW_HANDLE);
    }
    MSG message;
    EXPECT_FAILS(PeekMessageA(&message, stale, 0, 0, PM_REMOVE), ERROR_INVALID_WINDOW_HANDLE);
    TestProcess other("OwnsWindows", {"other"});
    const HWND foreign = ToWindow(other.Hear());
    EXPECT_FAILS(DestroyWindow(foreign), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(IsWindow(foreign));
}

TEST(Window, IsFoundFromOtherProcessesByClassAndTitle) {
    TestProcess owner("OwnsWindows", {"First", "Second", "Third"});
    HWND first, second, third;
    for (HWND* window : {&first, &second, &third})
        *window = ToWindow(owner.Hear());
    const HWND mine = MakeWindow("second", DefWindowProcA, "TVOROtherClass");

    EXPECT_EQ(FindWindowA("TVORTestClass", "First"), first);
    EXPECT_EQ(FindWindowA("tvortestclass", "sECOND"), second);
    EXPECT_EQ(FindWindowA("TVORTestClass", nullptr), third) << "the newest of its class";
    EXPECT_EQ(FindWindowA(nullptr, "Second"), mine) << "the newest with this title";
    EXPECT_EQ(FindWindowA("TVORTestClass", "Secon"), nullptr);
    EXPECT_EQ(AllWindows(), (std::vector<HWND>{mine, third, second, first}));
    // Asked to close from outside, the owner's procedure destroys the window, and the process ends.
    EXPECT_TRUE(PostMessageA(first, WM_CLOSE, 0, 0));
    EXPECT_TRUE(WaitUntil([&] { return !IsWindow(first); }));
    EXPECT_EQ(owner.Wait(), 7);
    EXPECT_EQ(AllWindows(), std::vector<HWND>{mine});
}

// Whether the thread ends or is stopped while it waits for messages.
TEST(Window, IsGoneWithItsThread) {
    for (const bool waits : {false, true}) {
        std::atomic<HWND> window{nullptr};
        const Owned thread = StartThread([&] {
            window = MakeWindow();
            return waits ? RunMessageLoop() : 0;
        });
        ASSERT_TRUE(WaitUntil([&] { return window.load() != nullptr; }));
        if (waits) {
            // Once it answers it is in its loop.
            EXPECT_EQ(SendMessageTimeoutA(window, WM_NULL, 0, 0, SMTO_NORMAL, 10000, nullptr), 1);
            EXPECT_TRUE(TerminateThread(thread, 1));
        }
        EXPECT_EQ(Finish(thread), waits ? 1U : 0U);
        EXPECT_FALSE(IsWindow(window));
    }
}

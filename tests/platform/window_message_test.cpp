// Messages: posted and sent, between threads and processes, in order, and refused when the queue is full.
#include "kit.h"

#include <atomic>

namespace {

constexpr UINT kCount = WM_APP + 1; // answered with the number of WM_APP messages so far
constexpr UINT kEcho = WM_APP + 2;
constexpr UINT kAskBack = WM_APP + 3; // asks the window in wParam for its echo, and answers with that
constexpr UINT kVanish = WM_APP + 4;  // destroys its window, then answers 5
constexpr UINT kDie = WM_APP + 5;

// lParam is the answer, bent so that both parameters are seen to arrive whole.
constexpr LPARAM kWide = static_cast<LPARAM>(0x8123456789abcdefULL >> (8 * (8 - sizeof(LPARAM))));

// The answer; 0 when none came.
LRESULT Send(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    DWORD_PTR answer = 0;
    SendMessageTimeoutA(window, message, wParam, lParam, SMTO_NORMAL, 10000, &answer);
    return static_cast<LRESULT>(answer);
}

LRESULT CALLBACK ServerProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    static LRESULT count = 0;
    switch (message) {
    case WM_APP:
        return ++count, 0;
    case kCount:
        return count;
    case kEcho:
        return lParam ^ static_cast<LPARAM>(wParam);
    case kAskBack:
        return Send(reinterpret_cast<HWND>(wParam), kEcho, 1, lParam);
    case kVanish:
        return DestroyWindow(window), 5;
    case kDie:
        return TerminateProcess(GetCurrentProcess(), 1);
    case WM_DESTROY:
        return PostQuitMessage(0), 0;
    default:
        return DefWindowProcA(window, message, wParam, lParam);
    }
}

// Serves its window; with an argument only once it is told to.
CHILD_PROCESS(ServesMessages) {
    child.Say(ToText(MakeWindow("", ServerProcedure, "TVORServer")));
    if (!child.arguments.empty()) child.Hear();
    return RunMessageLoop();
}

// arguments: window, poster's number, how many. Waits where the queue is full.
CHILD_PROCESS(PostsMessages) {
    const HWND window = ToWindow(child.arguments[0]);
    const WPARAM poster = std::stoul(child.arguments[1]);
    for (LPARAM i = 0; i < std::stol(child.arguments[2]); ++i) {
        const bool posted = WaitUntil(
            [&] { return PostMessageA(window, WM_APP, poster, i) || GetLastError() != ERROR_NOT_ENOUGH_QUOTA; });
        if (!posted || !IsWindow(window)) return 1;
    }
    return 0;
}

} // namespace

TEST(Messages, OfFourPostersArriveCompleteAndInOrder) {
    constexpr LPARAM kEach = 1500;
    const HWND window = MakeWindow();
    std::vector<TestProcess> posters;
    for (int i = 0; i < 4; ++i)
        posters.emplace_back("PostsMessages", Names{ToText(window), std::to_string(i), std::to_string(kEach)});
    LPARAM next[4] = {};
    for (LPARAM i = 0; i < 4 * kEach; ++i) {
        MSG message;
        ASSERT_TRUE(WaitUntil([&] { return Take(message); })) << "message " << i;
        ASSERT_TRUE(message.hwnd == window && message.message == WM_APP && message.wParam < 4);
        ASSERT_EQ(message.lParam, next[message.wParam]++);
    }
    for (TestProcess& poster : posters)
        EXPECT_EQ(poster.Wait(), 0);
    EXPECT_TRUE(QueueIsEmpty());
}

TEST(Messages, FullQueueRefusesAtOnceAndTakesAgainOnceRead) {
    TestProcess server("ServesMessages", {"later"});
    const HWND window = ToWindow(server.Hear());
    server.Stop(); // as hung as an owner can be
    LRESULT posted = 0;
    while (PostMessageA(window, WM_APP, 0, posted))
        ++posted;
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_QUOTA));
    EXPECT_GE(posted, 1000);
    EXPECT_LE(posted, 20000);
    EXPECT_FAILS(SendMessageTimeoutA(window, kCount, 0, 0, SMTO_BLOCK, 50, nullptr), ERROR_TIMEOUT);
    EXPECT_TRUE(IsWindow(window));

    server.Continue();
    server.Tell("serve");
    EXPECT_TRUE(WaitUntil([&] { return Send(window, kCount, 0, 0) == posted; })) << "none is lost or doubled";
    EXPECT_TRUE(PostMessageA(window, WM_APP, 0, 0));
}

TEST(Messages, CarryTheirParametersWholeToTheProcedure) {
    static WPARAM got;
    const auto procedure = [](HWND, UINT message, WPARAM wParam, LPARAM lParam) -> LRESULT {
        got = message == 0xffff ? wParam : 0;
        return lParam;
    };
    const HWND window = MakeWindow("", procedure);
    ASSERT_TRUE(PostMessageA(window, 0xffff, static_cast<WPARAM>(~kWide), kWide));
    MSG message;
    ASSERT_EQ(GetMessageA(&message, nullptr, 0, 0), 1);
    EXPECT_EQ(DispatchMessageA(&message), kWide);
    EXPECT_EQ(got, static_cast<WPARAM>(~kWide));
    EXPECT_FAILS(PostMessageA(window, 0x000c, 0, 0), ERROR_MESSAGE_SYNC_ONLY); // WM_SETTEXT
}

TEST(Messages, AreChosenByWindowAndRangeAndQuitComesLast) {
    const HWND one = MakeWindow();
    const HWND two = MakeWindow();
    PostQuitMessage(42);
    for (const UINT message : {WM_USER + 1, WM_USER + 5, WM_USER + 9})
        for (const HWND window : {one, two})
            ASSERT_TRUE(PostMessageA(window, message, 0, 0));
    MSG message;
    for (const UINT remove : {PM_NOREMOVE, PM_REMOVE}) { // it is left in place
        ASSERT_TRUE(PeekMessageA(&message, one, 0, 0, remove));
        EXPECT_EQ(message.message, static_cast<UINT>(WM_USER + 1));
    }
    ASSERT_TRUE(PeekMessageA(&message, two, WM_USER + 2, WM_USER + 8, PM_REMOVE));
    EXPECT_EQ(message.hwnd, two);
    EXPECT_EQ(message.message, static_cast<UINT>(WM_USER + 5));
    EXPECT_EQ(GetMessageA(&message, nullptr, WM_USER + 9, WM_USER + 9), 1);
    EXPECT_EQ(message.message, static_cast<UINT>(WM_USER + 9));

    // Destroying a window takes its own messages. No filter holds WM_QUIT back once nothing else passes.
    EXPECT_TRUE(DestroyWindow(one));
    EXPECT_EQ(GetMessageA(&message, two, WM_APP, WM_APP), 0);
    EXPECT_EQ(message.message, static_cast<UINT>(WM_QUIT));
    EXPECT_EQ(message.wParam, 42U);
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE))
        EXPECT_EQ(message.hwnd, two);
}

TEST(SentMessages, AreAnsweredByAnotherProcess) {
    TestProcess server("ServesMessages");
    const HWND window = ToWindow(server.Hear());
    EXPECT_EQ(Send(window, kEcho, 0xff, kWide), kWide ^ 0xff);
    // What was posted before is read before a later question is answered.
    EXPECT_TRUE(PostMessageA(window, WM_APP, 0, 0));
    EXPECT_TRUE(WaitUntil([&] { return Send(window, kCount, 0, 0) == 1; }));
    // It asks back while this thread waits for its answer.
    const HWND mine = MakeWindow("", ServerProcedure);
    EXPECT_EQ(Send(window, kAskBack, reinterpret_cast<WPARAM>(mine), 40), 41);
    EXPECT_TRUE(QueueIsEmpty());
    // A window that its message destroyed has answered all the same.
    EXPECT_EQ(Send(window, kVanish, 0, 0), 5);
    EXPECT_FALSE(IsWindow(window));
    EXPECT_EQ(server.Wait(), 0);
}

TEST(SentMessages, HaveABoundAndEndWithTheWindow) {
    TestProcess server("ServesMessages");
    const HWND window = ToWindow(server.Hear());
    ASSERT_EQ(Send(window, kCount, 0, 0), 0) << "it serves";
    server.Stop();
    DWORD_PTR result = 1234;
    const double start = NowMs();
    EXPECT_FAILS(SendMessageTimeoutA(window, WM_APP, 0, 0, SMTO_NORMAL, 200, &result), ERROR_TIMEOUT);
    EXPECT_GE(NowMs() - start, 200);
    EXPECT_LT(NowMs() - start, 5000);
    EXPECT_TRUE(result == 1234 || !OnTheLayer());
    server.Continue();
    // Nobody waits for it any more, so it is not carried out either.
    EXPECT_EQ(Send(window, kCount, 0, 0), 0);
    // The process dies while it has the message.
    SetLastError(kSentinel);
    EXPECT_EQ(SendMessageTimeoutA(window, kDie, 0, 0, SMTO_NORMAL, 20000, &result), 0);
    EXPECT_TRUE(GetLastError() == ERROR_INVALID_WINDOW_HANDLE || !OnTheLayer());
}

TEST(SentMessages, ReachOtherThreadsAndTheOwnDirectly) {
    const HWND mine = MakeWindow("", ServerProcedure);
    EXPECT_EQ(Send(mine, kEcho, 3, 4), 7);
    EXPECT_TRUE(QueueIsEmpty());
    std::atomic<HWND> other{nullptr};
    const Owned thread = StartThread([&] {
        other = CreateTestWindow();
        return RunMessageLoop();
    });
    ASSERT_TRUE(WaitUntil([&] { return other.load() != nullptr; }));
    EXPECT_EQ(Send(other, kAskBack, reinterpret_cast<WPARAM>(mine), 6), 7);
    EXPECT_EQ(Send(other, WM_CLOSE, 0, 0), 0);
    EXPECT_FALSE(IsWindow(other));
    EXPECT_EQ(Finish(thread), 0U);
}

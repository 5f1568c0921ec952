// Threads, and their termination.
#include "base/timings.h"
#include "campaign.h"
#include "posix_kit.h"
#include "win32_kit.h"

#include <atomic>

namespace {

std::atomic<DWORD> g_lastWords{0};
struct LastWords {
    DWORD said = 4711;
    ~LastWords() {
        Sleep(20);
        g_lastWords = GetCurrentThreadId();
    }
};

} // namespace

TEST(Thread, RunsAndLeavesItsExitCode) {
    DWORD own = 0;
    DWORD id = 0;
    const Owned thread = StartThread(
        [&] {
            static thread_local LastWords words;
            volatile char room[60000]; // of the 64 KiB that it asked for
            for (size_t i = 0; i < sizeof room; i += 1000)
                room[i] = 1;
            own = GetCurrentThreadId() * room[59000];
            return words.said;
        },
        &id);
    EXPECT_EQ(Finish(thread), 4711U);
    EXPECT_EQ(own, id);
    EXPECT_NE(id, GetCurrentThreadId());
    EXPECT_EQ(g_lastWords, id) << "its thread-local destructors come before its end";
    EXPECT_EQ(Look(thread), DWORD{WAIT_OBJECT_0}) << "and it stays ended";

    const Owned running = StartThread([] { return Sleep(INFINITE), 0; });
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(running, &code));
    EXPECT_EQ(code, DWORD{STILL_ACTIVE});
    EXPECT_EQ(Wait(running, 10), DWORD{WAIT_TIMEOUT});
    if (!OnTheLayer()) return; // which refuses what it has no use for
    const auto nothing = [](LPVOID) -> DWORD { return 0; };
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    EXPECT_FAILS(CreateThread(nullptr, 0, nullptr, nullptr, 0, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(CreateThread(nullptr, 0, nothing, nullptr, 4, nullptr), ERROR_NOT_SUPPORTED);
    EXPECT_FAILS(CreateThread(&inherited, 0, nothing, nullptr, 0, nullptr), ERROR_NOT_SUPPORTED);
}

// Wherever a thread is, it can be stopped: its handle is ready, its mutexes are abandoned, nothing else of its runs.
TEST(Termination, StopsAThreadWhereverItIs) {
    NeedsTheLayer("threads that can be stopped without harm");
    CRITICAL_SECTION busy;
    InitializeCriticalSection(&busy);
    EnterCriticalSection(&busy);
    const Owned never = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    Owned named = CreateEventA(nullptr, FALSE, FALSE, "Never");
    Owned busyMutex = CreateMutexA(nullptr, TRUE, "Busy");
    const HANDLE three[] = {never, named, busyMutex};
    const struct {
        const char* where;
        std::function<void()> body;
        bool sleeps = true;
    } rows[] = {
        {"computing",
         [] {
             for (DWORD x = 0;; ++x)
                 if (x % 1024 == 0) GetTickCount(); // thread sanitizer takes signals in calls only
         },
         false},
        {"asleep in a call of the system", [] { PauseMs(1000000); }},
        {"in Sleep", [] { Sleep(INFINITE); }},
        {"waiting for one", [&] { Wait(never, INFINITE); }},
        {"waiting for three", [&] { WaitForMultipleObjects(3, three, FALSE, INFINITE); }},
        {"waiting for a mutex", [&] { Wait(busyMutex, INFINITE); }},
        {"waiting for a critical section", [&] { EnterCriticalSection(&busy); }},
        {"waiting with all signals blocked", [&] { BlockAllSignals(), Wait(never, INFINITE); }},
        {"in and out of calls",
         [&] {
             while (SetEvent(named)) {
                 Look(named);
                 CloseHandle(CreateEventA(nullptr, TRUE, FALSE, "Mine"));
             }
         },
         false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.where);
        const Owned mutex = CreateMutexA(nullptr, FALSE, "Owned");
        const Owned unnamed = CreateMutexA(nullptr, FALSE, nullptr);
        const Owned begun = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::atomic<bool> ranOn{false};
        DWORD id = 0;
        DWORD blockedId = 0;
        const Owned thread = StartThread(
            [&, body = row.body] {
                Wait(mutex);
                Wait(unnamed);
                SetEvent(begun);
                body();
                ranOn = true;
                return 1;
            },
            &id);
        ASSERT_EQ(Wait(begun), DWORD{WAIT_OBJECT_0});
        const Owned blocked = StartThread(
            [&] {
                const DWORD result = Wait(mutex);
                ReleaseMutex(mutex);
                return result;
            },
            &blockedId);
        EXPECT_TRUE(WaitUntil([&] { return IsAsleep(blockedId) && (!row.sleeps || IsAsleep(id)); }));
        EXPECT_TRUE(TerminateThread(thread, 88)) << GetLastError();
        EXPECT_EQ(Look(thread), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(Finish(blocked), DWORD{WAIT_ABANDONED});
        EXPECT_EQ(Look(unnamed), DWORD{WAIT_ABANDONED});
        EXPECT_TRUE(TerminateThread(thread, 99)) << "it has ended";
        EXPECT_EQ(Finish(thread), 88U);
        SetEvent(named);
        PauseMs(5);
        EXPECT_FALSE(ranOn);
        ResetEvent(named);
    }
    LeaveCriticalSection(&busy);
    // None of the stopped threads has taken the section or a wake-up with it.
    EXPECT_EQ(OnAThread([&] {
                  EnterCriticalSection(&busy);
                  LeaveCriticalSection(&busy);
                  return 0;
              }),
              0U);
    named.Close(); // what they waited for is let go
    busyMutex.Close();
    EXPECT_FAILS(OpenEventA(SYNCHRONIZE, FALSE, "Never"), ERROR_FILE_NOT_FOUND);
    EXPECT_FAILS(OpenMutexA(SYNCHRONIZE, FALSE, "Busy"), ERROR_FILE_NOT_FOUND);
}

// A thread that is stopped again and again in the middle of calls never takes a lock of the layer with it.
TEST(Termination, LeavesTheLayerWhole) {
    NeedsTheLayer("threads that can be stopped without harm");
    const Owned shared = CreateMutexA(nullptr, FALSE, "Shared");
    for (int round = Rounds(39, 2000); round > 0; --round) {
        const Owned begun = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        const Owned thread = StartThread([&] {
            for (SetEvent(begun);;) {
                Wait(shared, INFINITE);
                SetEvent(Owned(CreateEventA(nullptr, TRUE, FALSE, "Contended")));
                ReleaseMutex(shared);
            }
            return 0;
        });
        Wait(begun);
        for (int yields = round % 13; yields > 0; --yields)
            Sleep(0);
        ASSERT_TRUE(TerminateThread(thread, 0));
        const DWORD result = Wait(shared);
        ASSERT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED);
        ASSERT_TRUE(SetEvent(Owned(CreateEventA(nullptr, TRUE, FALSE, "Contended")))) << GetLastError();
        ReleaseMutex(shared);
    }
}

TEST(Termination, IsRefusedForWhatCannotBeStopped) {
    NeedsTheLayer("threads that cannot be stopped");
    const Owned begun = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE own = nullptr;
    const Owned suicidal = StartThread([&] {
        Wait(begun);
        return Code(TerminateThread(own, 1));
    });
    own = suicidal;
    SetEvent(begun);
    EXPECT_EQ(Finish(suicidal), DWORD{ERROR_NOT_SUPPORTED});

    // All signals blocked, and no call of the layer: an error in time, and the thread runs on as if nothing had been.
    std::atomic<bool> over{false};
    std::atomic<bool> ready{false};
    const Owned stubborn = StartThread([&] {
        BlockAllSignals();
        for (ready = true; !over;)
            PauseMs(1);
        Sleep(1);
        return 5;
    });
    EXPECT_TRUE(WaitUntil([&] { return ready.load(); }));
    oriel::g_timings.threadStop = 100;
    EXPECT_FAILS(TerminateThread(stubborn, 1), ERROR_TIMEOUT);
    EXPECT_EQ(Look(stubborn), DWORD{WAIT_TIMEOUT});
    over = true;
    EXPECT_EQ(Finish(stubborn), 5U);
    EXPECT_FAILS(TerminateThread(GetCurrentThread(), 1), ERROR_INVALID_HANDLE);
}

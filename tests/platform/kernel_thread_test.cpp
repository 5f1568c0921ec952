// Threads, and their termination.
#include "kernel_kit.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

DWORD ExitCodeOf(HANDLE thread) {
    DWORD code = 0xDEAD;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    return code;
}

std::atomic<DWORD> g_lastWords{0};
struct LastWords {
    DWORD said = 4711;
    ~LastWords() {
        Sleep(20);
        g_lastWords.store(GetCurrentThreadId());
    }
};

DWORD ReturnsItsNumber(LPVOID parameter) {
    static thread_local LastWords words;
    *static_cast<DWORD*>(parameter) = GetCurrentThreadId();
    return words.said;
}

} // namespace

TEST(Thread, RunsAndLeavesItsExitCode) {
    DWORD own = 0;
    DWORD id = 0;
    const Owned thread = CreateThread(nullptr, 65536, ReturnsItsNumber, &own, 0, &id);
    ASSERT_NE(static_cast<HANDLE>(thread), nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, 20000), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(own, id);
    EXPECT_NE(id, GetCurrentThreadId());
    EXPECT_EQ(ExitCodeOf(thread), 4711U);
    EXPECT_EQ(g_lastWords.load(), id) << "its thread-local destructors come before its end";
    EXPECT_EQ(WaitForSingleObject(thread, 0), DWORD{WAIT_OBJECT_0}) << "and it stays ended";

    const Owned event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const Owned running = StartThread([&] { return WaitForSingleObject(event, 20000); });
    EXPECT_EQ(ExitCodeOf(running), DWORD{STILL_ACTIVE});
    EXPECT_EQ(WaitForSingleObject(running, 10), DWORD{WAIT_TIMEOUT});
    SetEvent(event);
    EXPECT_TRUE(Join(running));

    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    EXPECT_EQ(CreateThread(nullptr, 0, nullptr, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CreateThread(nullptr, 0, ReturnsItsNumber, &own, 4, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_EQ(CreateThread(&inherited, 0, ReturnsItsNumber, &own, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_SUPPORTED});
}

TEST(Thread, HasTheStackThatItAskedFor) {
    const Owned thread = CreateThread(
        nullptr, 65536,
        [](LPVOID) -> DWORD {
            volatile char room[60000];
            for (size_t i = 0; i < sizeof room; i += 1000)
                room[i] = 1;
            return room[59000];
        },
        nullptr, 0, nullptr);
    EXPECT_TRUE(Join(thread));
    EXPECT_EQ(ExitCodeOf(thread), 1U);
}

// Wherever a thread is, it can be stopped: its handle is ready, its mutexes are abandoned, nothing else of its runs.
TEST(Termination, StopsAThreadWhereverItIs) {
    CRITICAL_SECTION busy;
    InitializeCriticalSection(&busy);
    EnterCriticalSection(&busy);
    const Owned never = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const Owned named = CreateEventA(nullptr, FALSE, FALSE, "Never");
    const Owned busyMutex = CreateMutexA(nullptr, TRUE, "Busy");
    const HANDLE three[] = {never, named, busyMutex};
    std::atomic<bool> signalsBlocked{false};
    struct Row {
        const char* where;
        std::function<void()> body;
    };
    const Row rows[] = {
        {"computing",
         [] {
             for (DWORD x = 0;; ++x)
                 if (x % 1024 == 0) GetTickCount(); // thread sanitizer takes signals in calls only
         }},
        {"asleep in a call of the system", [] { PauseMs(1000000); }},
        {"in Sleep", [] { Sleep(INFINITE); }},
        {"waiting for one", [&] { WaitForSingleObject(never, INFINITE); }},
        {"waiting for three", [&] { WaitForMultipleObjects(3, three, FALSE, INFINITE); }},
        {"waiting for a mutex", [&] { WaitForSingleObject(busyMutex, INFINITE); }},
        {"waiting for a critical section", [&] { EnterCriticalSection(&busy); }},
        {"waiting with all signals blocked",
         [&] {
             BlockAllSignals();
             signalsBlocked.store(true);
             WaitForSingleObject(never, INFINITE);
         }},
        {"in and out of calls",
         [&] {
             for (;;) {
                 SetEvent(named);
                 WaitForSingleObject(named, 0);
                 CloseHandle(CreateEventA(nullptr, TRUE, FALSE, "Mine"));
             }
         }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.where);
        const Owned mutex = CreateMutexA(nullptr, FALSE, "Owned");
        const Owned unnamed = CreateMutexA(nullptr, FALSE, nullptr);
        const Owned begun = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::atomic<bool> ranOn{false};
        const Owned thread = StartThread([&, body = row.body] {
            WaitForSingleObject(mutex, 20000);
            WaitForSingleObject(unnamed, 20000);
            SetEvent(begun);
            body();
            ranOn.store(true);
            return 1;
        });
        ASSERT_EQ(WaitForSingleObject(begun, 20000), DWORD{WAIT_OBJECT_0});
        const Owned blocked = StartThread([&] {
            const DWORD result = WaitForSingleObject(mutex, 20000);
            ReleaseMutex(mutex);
            return result;
        });
        PauseMs(20);
        EXPECT_TRUE(TerminateThread(thread, 88)) << GetLastError();
        EXPECT_EQ(WaitForSingleObject(thread, 0), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(ExitCodeOf(thread), 88U);
        EXPECT_TRUE(Join(blocked));
        EXPECT_EQ(ExitCodeOf(blocked), DWORD{WAIT_ABANDONED});
        EXPECT_EQ(WaitForSingleObject(unnamed, 0), DWORD{WAIT_ABANDONED});
        EXPECT_TRUE(TerminateThread(thread, 99)); // it has ended
        EXPECT_EQ(ExitCodeOf(thread), 88U);
        SetEvent(named);
        PauseMs(5);
        EXPECT_FALSE(ranOn.load());
        ResetEvent(named);
    }
    LeaveCriticalSection(&busy);
    // None of the stopped threads has taken the section or a wake-up with it.
    const Owned other = StartThread([&] {
        EnterCriticalSection(&busy);
        LeaveCriticalSection(&busy);
        return 0;
    });
    EXPECT_TRUE(Join(other));
}

TEST(Termination, OfAWaiterLetsItsObjectsGo) {
    Owned event = CreateEventA(nullptr, TRUE, FALSE, "WaitedFor");
    const Owned waiter = StartThread([&] { return WaitForSingleObject(event, INFINITE); });
    PauseMs(20);
    EXPECT_TRUE(TerminateThread(waiter, 0));
    event.Close();
    EXPECT_TRUE(ObjectFiles().empty());
}

// A thread that is stopped again and again in the middle of calls never takes a lock of the layer with it.
TEST(Termination, LeavesTheLayerWhole) {
    const Owned shared = CreateMutexA(nullptr, FALSE, "Shared");
    for (int round = 0; round < 100; ++round) {
        const Owned begun = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        const Owned thread = StartThread([&] {
            SetEvent(begun);
            for (;;) {
                WaitForSingleObject(shared, INFINITE);
                const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "Contended");
                SetEvent(event);
                CloseHandle(event);
                ReleaseMutex(shared);
            }
            return 0;
        });
        WaitForSingleObject(begun, 20000);
        for (int yields = round % 13; yields > 0; --yields)
            Sleep(0);
        ASSERT_TRUE(TerminateThread(thread, 0));
        const DWORD result = WaitForSingleObject(shared, 20000);
        ASSERT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED);
        const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "Contended");
        ASSERT_NE(event, nullptr) << GetLastError();
        CloseHandle(event);
        ReleaseMutex(shared);
    }
}

TEST(Termination, IsRefusedForWhatCannotBeStopped) {
    const Owned self = StartThread([] { return 0; });
    Join(self);
    HANDLE own = nullptr;
    const Owned begun = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const Owned suicidal = StartThread([&] {
        WaitForSingleObject(begun, 20000);
        return TerminateThread(own, 1) ? 0 : GetLastError();
    });
    own = suicidal;
    SetEvent(begun);
    EXPECT_TRUE(Join(suicidal));
    EXPECT_EQ(ExitCodeOf(suicidal), DWORD{ERROR_NOT_SUPPORTED});

    // All signals blocked, and no call of the layer: an error in time, and the thread runs on as if nothing had been.
    std::atomic<bool> over{false};
    std::atomic<bool> ready{false};
    const Owned stubborn = StartThread([&] {
        BlockAllSignals();
        ready.store(true);
        while (!over.load())
            PauseMs(1);
        Sleep(1);
        return 5;
    });
    WaitUntil([&] { return ready.load(); });
    EXPECT_FALSE(TerminateThread(stubborn, 1));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_TIMEOUT});
    EXPECT_EQ(ExitCodeOf(stubborn), DWORD{STILL_ACTIVE});
    over.store(true);
    EXPECT_TRUE(Join(stubborn));
    EXPECT_EQ(ExitCodeOf(stubborn), 5U);
    EXPECT_FALSE(TerminateThread(GetCurrentThread(), 1));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
}

// Threads, and their termination.
#include "base/timings.h"
#include "campaign.h"
#include "kit.h"

#include <atomic>
#include <oriel_wait.h>

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
    DWORD own = 0, id = 0;
    const auto body = [&] {
        static thread_local LastWords words;
        own = GetCurrentThreadId();
        return words.said;
    };
    const Owned thread = StartThread(body, &id);
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
}

// Wherever a thread is, it can be stopped: its handle is ready, its mutexes are abandoned, nothing else of its runs.
TEST(Termination, StopsAThreadWhereverItIs) {
    // By pointer, so that the lock analysis does not follow: threads are stopped while they have the section.
    const auto enter = &EnterCriticalSection;
    const auto leave = &LeaveCriticalSection;
    CRITICAL_SECTION busy;
    InitializeCriticalSection(&busy);
    enter(&busy);
    const Owned never = NewEvent();
    Owned named = NewEvent("Never", FALSE);
    Owned pulsed = NewEvent("Pulsed");
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
        {"waiting for one", [&] { Wait(never, INFINITE); }},
        {"waiting for three", [&] { WaitForMultipleObjects(3, three, FALSE, INFINITE); }},
        {"asleep for one alone", [&] { OrielSleepFrom(pulsed, 0, INFINITE); }},
        {"waiting for a mutex", [&] { Wait(busyMutex, INFINITE); }},
        {"waiting for a critical section", [&] { enter(&busy); }},
        {"waiting with all signals blocked", [&] { BlockAllSignals(), Wait(never, INFINITE); }},
        {"in and out of calls",
         [&] {
             for (; SetEvent(named); Look(named))
                 CloseHandle(NewEvent("Mine"));
         },
         false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.where);
        const Owned mutex = CreateMutexA(nullptr, FALSE, "Owned");
        const Owned unnamed = CreateMutexA(nullptr, FALSE, nullptr);
        const Owned begun = NewEvent();
        std::atomic<bool> ranOn{false};
        DWORD id = 0, blockedId = 0;
        const auto body = [&, body = row.body] {
            Wait(mutex), Wait(unnamed), SetEvent(begun);
            body();
            ranOn = true;
            return 1;
        };
        const Owned thread = StartThread(body, &id);
        ASSERT_EQ(Wait(begun), DWORD{WAIT_OBJECT_0});
        const Owned blocked = StartThread([&] { return Wait(mutex); }, &blockedId);
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
    leave(&busy);
    // None of the stopped threads has taken the section with it, and what they waited for is let go.
    enter(&busy);
    enter(&busy); // recursively
    DWORD otherId = 0;
    const Owned other = StartThread([&] { return enter(&busy), leave(&busy), 0; }, &otherId);
    leave(&busy);
    EXPECT_TRUE(WaitUntil([&] { return IsAsleep(otherId); }));
    EXPECT_EQ(Look(other), DWORD{WAIT_TIMEOUT});
    leave(&busy);
    EXPECT_EQ(Finish(other), 0U);
    named.Close();
    pulsed.Close();
    busyMutex.Close();
    for (const char* name : {"Never", "Pulsed"})
        EXPECT_FAILS(OpenEventA(SYNCHRONIZE, FALSE, name), ERROR_FILE_NOT_FOUND);
    EXPECT_FAILS(OpenMutexA(SYNCHRONIZE, FALSE, "Busy"), ERROR_FILE_NOT_FOUND);
}

// A thread that is stopped again and again in the middle of calls never takes a lock of the layer with it.
TEST(Termination, LeavesTheLayerWhole) {
    const Owned shared = CreateMutexA(nullptr, FALSE, "Shared");
    const auto contend = [] { return SetEvent(Owned(NewEvent("Contended"))); };
    for (int round = Rounds(39, 2000); round > 0; --round) {
        const Owned begun = NewEvent();
        const Owned thread = StartThread([&]() -> DWORD {
            for (SetEvent(begun);; ReleaseMutex(shared))
                Wait(shared, INFINITE), contend();
        });
        Wait(begun);
        for (int yields = round % 13; yields > 0; --yields)
            Sleep(0);
        ASSERT_TRUE(TerminateThread(thread, 0));
        const DWORD result = Wait(shared);
        ASSERT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED);
        ASSERT_TRUE(contend()) << GetLastError();
        ReleaseMutex(shared);
    }
}

TEST(Termination, IsRefusedForWhatCannotBeStopped) {
    // All signals blocked, and no call of the layer: an error in time, and the thread runs on as if nothing had been.
    std::atomic<bool> over{false}, ready{false};
    const Owned stubborn = StartThread([&] {
        BlockAllSignals();
        for (ready = true; !over;)
            PauseMs(1);
        return Sleep(1), 5;
    });
    EXPECT_TRUE(WaitUntil([&] { return ready.load(); }));
    oriel::g_timings.threadStop = 100;
    EXPECT_FAILS(TerminateThread(stubborn, 1), ERROR_TIMEOUT);
    EXPECT_EQ(Look(stubborn), DWORD{WAIT_TIMEOUT});
    over = true;
    EXPECT_EQ(Finish(stubborn), 5U);
}

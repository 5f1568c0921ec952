// Mutexes whose owners end, critical sections and shared sections.
#include "base/timings.h"
#include "campaign.h"
#include "kit.h"

#include <atomic>

TEST(Mutex, IsAbandonedOnceByAThreadThatEnds) {
    oriel::g_timings.mutexFirstLook = oriel::g_timings.mutexLook = 60000; // who is not woken sleeps on
    for (const char* name : {static_cast<const char*>(nullptr), "M"})
        for (const bool blocked : {false, true}) {
            SCOPED_TRACE(testing::Message() << (name ? name : "none") << (blocked ? ", blocked" : ""));
            const Owned mutex = CreateMutexA(nullptr, FALSE, name);
            const Owned taken = NewEvent();
            const HANDLE both[] = {NewEvent(), mutex};
            std::atomic<bool> waits{false};
            const Owned owner = StartThread([&, self = GetCurrentThreadId()] {
                Wait(mutex), Wait(mutex), SetEvent(taken);
                return blocked && !WaitUntil([&] { return waits && IsAsleep(self); }) ? 1 : 0;
            });
            Wait(blocked ? taken : owner);
            SetLastError(kSentinel);
            const double begin = NowMs();
            waits = true;
            EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 10000), DWORD{WAIT_ABANDONED_0 + 1});
            EXPECT_EQ(GetLastError(), kSentinel);
            EXPECT_LT(NowMs() - begin, 5000) << "woken by the end, not by the time limit";
            EXPECT_EQ(OnAThread([&] { return Look(mutex); }), DWORD{WAIT_TIMEOUT}) << "abandoned, but owned now";
            EXPECT_TRUE(ReleaseMutex(mutex));
            EXPECT_FALSE(ReleaseMutex(mutex)) << "once";
            EXPECT_EQ(Look(mutex), DWORD{WAIT_OBJECT_0}) << "said once";
            EXPECT_TRUE(ReleaseMutex(mutex));
            EXPECT_EQ(Finish(owner), 0U);
        }
}

CHILD_PROCESS(OwnsTheMutex) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    if (!child.arguments.empty()) child.Say("has it open");
    const DWORD result = Wait(mutex);
    child.Say(result == WAIT_OBJECT_0 ? "owns" : result == WAIT_ABANDONED ? "owns, abandoned" : "failed");
    child.Hear();
    return 0; // leaves without a release
}

TEST(Mutex, OfAKilledOwnerIsLookedForSoonAfterTheWaitBegan) {
    oriel::g_timings.mutexLook = 60000; // which only a long wait comes to
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    TestProcess owner("OwnsTheMutex");
    ASSERT_EQ(owner.Hear(), "owns");
    DWORD id = 0;
    const Owned waiter = StartThread([&]() -> DWORD { return Wait(mutex, 10000); }, &id);
    ASSERT_TRUE(WaitUntil([&] { return IsAsleep(id); }));
    const double killed = NowMs();
    owner.KillOnly();
    EXPECT_EQ(Finish(waiter), DWORD{WAIT_ABANDONED});
    EXPECT_LT(NowMs() - killed, 5000) << "not by the last look of the wait";
}

TEST(Mutex, WhoseLastHandleIsClosedIsGoneOrStaysOwned) {
    EXPECT_TRUE(Owned(CreateMutexA(nullptr, TRUE, "Alone")).Close());
    EXPECT_FAILS(OpenMutexA(SYNCHRONIZE, FALSE, "Alone"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ObjectCount(), 0U);
    const Owned fresh = CreateMutexA(nullptr, FALSE, "Alone");
    EXPECT_EQ(OnAThread([&] { return Look(fresh); }), DWORD{WAIT_OBJECT_0});
    for (const bool killed : {true, false}) {
        TestProcess other("OwnsTheMutex");
        ASSERT_EQ(other.Hear(), "owns");
        EXPECT_EQ(OnAThread([&] {
                      Owned mutex = CreateMutexA(nullptr, FALSE, "M");
                      killed ? other.KillOnly() : other.Tell("leave");
                      if (Wait(mutex) != WAIT_ABANDONED) return 1;
                      TestProcess second("OwnsTheMutex", {"announce"}); // and waits for it
                      if (second.Hear() != "has it open") return 5;
                      mutex.Close(); // the last handle here; the thread owns it to its end
                      const Owned again = OpenMutexA(SYNCHRONIZE, FALSE, "M");
                      if (Look(again) != WAIT_OBJECT_0) return 2; // once more
                      if (!ReleaseMutex(again) || !ReleaseMutex(again)) return 3;
                      return second.Hear() == "owns" ? 0 : 4; // abandoned was said once, to one
                  }),
                  0U);
    }
}

// Two threads take turns with all the others in all processes, until one finds another inside, or one that died there
// untold. Each makes, uses and drops one of the same few names meanwhile.
CHILD_PROCESS(CountsAndMarks) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    volatile LONG* inside = SharedNumber("Inside");
    volatile LONG* abandoned = SharedNumber("Abandoned");
    const bool isVictim = child.arguments[0] == "victim";
    child.Say("ready");
    const auto work = [&]() -> DWORD {
        for (;;) {
            const DWORD result = Wait(mutex, 30000);
            if (result == WAIT_ABANDONED)
                *abandoned = *abandoned + 1;
            else if (result != WAIT_OBJECT_0 || *inside != 0)
                return 1;
            *inside = static_cast<LONG>(GetCurrentThreadId());
            const Owned event = NewEvent(result == WAIT_ABANDONED ? "Storm1" : "Storm0");
            if (!SetEvent(event) || Look(event) != WAIT_OBJECT_0) return 4;
            if (isVictim) PauseMs(1); // most of its life
            for (int turn = 0; turn < 200; ++turn)
                if (*inside != static_cast<LONG>(GetCurrentThreadId())) return 2;
            *inside = 0;
            if (!ReleaseMutex(mutex)) return 3;
            if (!isVictim) Sleep(1);
        }
    };
    const HANDLE threads[] = {StartThread(work), StartThread(work)};
    return static_cast<int>(10 + WaitForMultipleObjects(2, threads, FALSE, INFINITE));
}

// Processes are killed wherever they are; two live on throughout. Nobody is ever in the section with another, whoever
// dies in it is reported, and nothing is left of the names.
TEST(MutexCampaign, SurvivesAStormOfKills) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    volatile LONG* abandoned = SharedNumber("Abandoned");
    volatile LONG* inside = SharedNumber("Inside");
    TestProcess steady[] = {TestProcess("CountsAndMarks", {"steady"}), TestProcess("CountsAndMarks", {"steady"})};
    for (TestProcess& one : steady)
        one.Hear();
    KillStorm("CountsAndMarks", "victim", Rounds(30, 2000), [&] {
        const DWORD result = Wait(mutex); // who holds up the others? Nobody, for long.
        ASSERT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED);
        if (result == WAIT_ABANDONED) *abandoned = *abandoned + 1;
        EXPECT_TRUE(*inside == 0 || result == WAIT_ABANDONED) << "died inside, untold";
        *inside = 0;
        ASSERT_TRUE(ReleaseMutex(mutex));
    });
    EXPECT_TRUE(steady[0].Running() && steady[1].Running());
    for (TestProcess& one : steady)
        one.Kill();
    for (const char* name : {"Storm0", "Storm1"}) {
        EXPECT_EQ(Look(Owned(NewEvent(name))), DWORD{WAIT_TIMEOUT}) << name;
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS}) << name;
    }
    EXPECT_GT(*abandoned, 0) << "no kill hit the section: the test shows nothing";
}

TEST(Section, IsZeroAtFirstSharedAndChecked) {
    const auto create = [](const char* name, DWORD size) {
        return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
    };
    const HANDLE section = create("Counters", 8);
    auto* one = static_cast<DWORD*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
    const HANDLE again = create("Global\\Counters", 4096); // the same one, whatever size it names
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    auto* two = static_cast<const DWORD*>(MapViewOfFile(again, FILE_MAP_READ, 0, 0, 8));
    ASSERT_TRUE(one && two);
    EXPECT_EQ(one[0] | one[1], 0U);
    one[1] = 77;
    EXPECT_EQ(two[1], 77U);
    EXPECT_TRUE(UnmapViewOfFile(one));
    EXPECT_FAILS(UnmapViewOfFile(one), ERROR_INVALID_ADDRESS);
    EXPECT_FAILS(MapViewOfFile(again, FILE_MAP_WRITE, 0, 0, 9), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(create("Other", (1 << 20) + 1), ERROR_INVALID_PARAMETER);
}

// Mutexes, critical sections and shared sections: ownership, and what happens to it when the owner ends.
#include "base/timings.h"
#include "campaign.h"
#include "posix_kit.h"
#include "win32_kit.h"

#include <atomic>
#include <vector>

namespace {

const char* const kNames[] = {nullptr, "M"};

// What a wait says on a thread of its own.
DWORD LookFromElsewhere(HANDLE mutex) {
    return OnAThread([&] {
        const DWORD result = Look(mutex);
        if (result != WAIT_TIMEOUT && result != WAIT_FAILED) ReleaseMutex(mutex);
        return result;
    });
}

HANDLE CreateSection(const char* name, DWORD size = 64) {
    return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
}

volatile DWORD* SharedNumber(const char* name) {
    const Owned section = CreateSection(name);
    return static_cast<volatile DWORD*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
}

} // namespace

TEST(Mutex, IsReleasedAsOftenAsItWasTaken) {
    for (const char* name : kNames) {
        SCOPED_TRACE(name != nullptr ? name : "none");
        const Owned mutex = CreateMutexA(nullptr, TRUE, name);
        SetLastError(kSentinel);
        for (int i = 0; i < 31; ++i)
            ASSERT_EQ(WaitForSingleObject(mutex, i % 2 != 0 ? 0 : INFINITE), DWORD{WAIT_OBJECT_0});
        for (int i = 0; i < 32; ++i) {
            EXPECT_EQ(LookFromElsewhere(mutex), DWORD{WAIT_TIMEOUT});
            EXPECT_TRUE(ReleaseMutex(mutex));
        }
        EXPECT_EQ(GetLastError(), kSentinel);
        EXPECT_FAILS(ReleaseMutex(mutex), ERROR_NOT_OWNER);
        EXPECT_EQ(LookFromElsewhere(mutex), DWORD{WAIT_OBJECT_0});
        ASSERT_EQ(Look(mutex), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(OnAThread([&] { return Code(ReleaseMutex(mutex)); }), DWORD{ERROR_NOT_OWNER}) << "a stranger";
        if (name == nullptr) continue;
        EXPECT_EQ(OnAThread([&]() -> DWORD {
                      const Owned known = CreateMutexA(nullptr, TRUE, name); // and so not owned by its thread
                      return GetLastError() != ERROR_ALREADY_EXISTS || ReleaseMutex(known) ? 1 : Wait(known, 60);
                  }),
                  DWORD{WAIT_TIMEOUT});
    }
}

TEST(Mutex, IsAbandonedOnceByAThreadThatEnds) {
    oriel::g_timings.mutexSlice = 60000; // who is not woken sleeps on
    const DWORD self = GetCurrentThreadId();
    for (const char* name : kNames)
        for (const bool blocked : {false, true}) {
            SCOPED_TRACE(testing::Message() << (name != nullptr ? name : "none") << (blocked ? ", blocked" : ""));
            const Owned mutex = CreateMutexA(nullptr, FALSE, name);
            const Owned taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
            const Owned never = CreateEventA(nullptr, TRUE, FALSE, nullptr);
            const HANDLE both[] = {never, mutex};
            std::atomic<bool> waits{false};
            const Owned owner = StartThread([&] {
                Wait(mutex);
                Wait(mutex);
                SetEvent(taken);
                return blocked && !WaitUntil([&] { return waits && IsAsleep(self); }) ? 1 : 0;
            });
            Wait(taken);
            if (!blocked) Wait(owner);
            SetLastError(kSentinel);
            const double begin = NowMs();
            waits = true;
            EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 10000), DWORD{WAIT_ABANDONED_0 + 1});
            EXPECT_EQ(GetLastError(), kSentinel);
            EXPECT_LT(NowMs() - begin, 5000) << "woken by the end, not by the time limit";
            EXPECT_EQ(LookFromElsewhere(mutex), DWORD{WAIT_TIMEOUT}) << "abandoned, but owned now";
            EXPECT_TRUE(ReleaseMutex(mutex));
            EXPECT_FALSE(ReleaseMutex(mutex)) << "once";
            EXPECT_EQ(Look(mutex), DWORD{WAIT_OBJECT_0}) << "said once";
            EXPECT_TRUE(ReleaseMutex(mutex));
            EXPECT_EQ(Finish(owner), 0U);
        }
    oriel::g_timings = {};
}

CHILD_PROCESS(OwnsTheMutex) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    if (!child.arguments.empty()) child.Say("has it open");
    const DWORD result = Wait(mutex);
    child.Say(result == WAIT_OBJECT_0 ? "owns" : result == WAIT_ABANDONED ? "owns, abandoned" : "failed");
    child.Hear();
    return 0; // leaves without a release
}

// Two threads take turns with all the others in all processes, until one finds another inside, or one that died there
// untold.
CHILD_PROCESS(CountsAndMarks) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    volatile DWORD* inside = SharedNumber("Inside");
    volatile DWORD* abandoned = SharedNumber("Abandoned");
    const bool isVictim = !child.arguments.empty();
    child.Say("ready");
    const auto work = [&]() -> DWORD {
        for (;;) {
            const DWORD result = Wait(mutex, 30000);
            if (result == WAIT_ABANDONED)
                *abandoned = *abandoned + 1;
            else if (result != WAIT_OBJECT_0 || *inside != 0)
                return 1;
            *inside = GetCurrentThreadId();
            if (isVictim) PauseMs(1); // most of its life
            for (int turn = 0; turn < 200; ++turn)
                if (*inside != GetCurrentThreadId()) return 2;
            *inside = 0;
            if (!ReleaseMutex(mutex)) return 3;
            if (!isVictim) Sleep(1);
        }
    };
    const HANDLE threads[] = {StartThread(work), StartThread(work)};
    return static_cast<int>(10 + WaitForMultipleObjects(2, threads, FALSE, INFINITE));
}

// Processes are killed wherever they are; two live on throughout. Nobody is ever in the section with another, and
// whoever dies in it is reported.
TEST(MutexCampaign, SurvivesAStormOfKills) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    volatile DWORD* abandoned = SharedNumber("Abandoned");
    volatile DWORD* inside = SharedNumber("Inside");
    TestProcess steady[] = {TestProcess("CountsAndMarks"), TestProcess("CountsAndMarks")};
    for (TestProcess& one : steady)
        one.Hear();
    const int rounds = Rounds(30, 2000);
    for (int round = 0; round < rounds; ++round) {
        TestProcess victim("CountsAndMarks", {"long"});
        victim.Hear();
        PauseMs(round % 23);
        victim.Kill();
        // Who holds up the others? Nobody, for long.
        const DWORD result = Wait(mutex);
        ASSERT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) << round;
        if (result == WAIT_ABANDONED) *abandoned = *abandoned + 1;
        EXPECT_TRUE(*inside == 0 || result == WAIT_ABANDONED) << "died inside, untold";
        *inside = 0;
        ASSERT_TRUE(ReleaseMutex(mutex));
    }
    for (TestProcess& one : steady)
        EXPECT_TRUE(one.Running());
    // Elsewhere most of a victim's life may pass on the way into the section.
    EXPECT_TRUE(*abandoned > 0 || !OnTheLayer()) << "no kill hit the section: the test shows nothing";
    std::printf("%u of %d deaths were inside\n", *abandoned, rounds);
}

TEST(Mutex, WhoseLastHandleIsClosedIsGoneOrStaysOwned) {
    {
        Owned mutex = CreateMutexA(nullptr, TRUE, "Alone");
        mutex.Close();
        EXPECT_FAILS(OpenMutexA(SYNCHRONIZE, FALSE, "Alone"), ERROR_FILE_NOT_FOUND);
        EXPECT_TRUE(ObjectFiles().empty());
        const Owned fresh = CreateMutexA(nullptr, FALSE, "Alone");
        EXPECT_EQ(LookFromElsewhere(fresh), DWORD{WAIT_OBJECT_0});
    }
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

TEST(CriticalSection, ExcludesAndRecurs) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    EnterCriticalSection(&section);
    LeaveCriticalSection(&section);
    const Owned other = StartThread([&] {
        if (OnTheLayer()) LeaveCriticalSection(&section); // not its own: nothing happens
        EnterCriticalSection(&section);
        LeaveCriticalSection(&section);
        return 0;
    });
    EXPECT_EQ(WaitForSingleObject(other, 20), DWORD{WAIT_TIMEOUT});
    LeaveCriticalSection(&section);
    EXPECT_EQ(Finish(other), 0U);
    DeleteCriticalSection(&section);
}

TEST(Section, IsZeroAtFirstSharedAndChecked) {
    const Owned section = CreateSection("Counters", 8);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
    auto* one = static_cast<DWORD*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
    auto* two = static_cast<const DWORD*>(MapViewOfFile(section, FILE_MAP_READ, 0, 0, 8));
    ASSERT_TRUE(one != nullptr && two != nullptr);
    EXPECT_EQ(one[0] | one[1], 0U);
    one[1] = 77;
    EXPECT_EQ(two[1], 77U);
    // The same one, whatever size it names; on the layer there is one logon.
    const Owned again = CreateSection(OnTheLayer() ? "Global\\Counters" : "Counters", 4096);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_TRUE(UnmapViewOfFile(one));
    EXPECT_FAILS(UnmapViewOfFile(one), ERROR_INVALID_ADDRESS);
    if (!OnTheLayer()) return; // to which a view is as long as its section, and not as the pages that it takes
    EXPECT_FAILS(MapViewOfFile(again, FILE_MAP_WRITE, 0, 0, 9), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(MapViewOfFile(section, 0x20, 0, 0, 0), ERROR_INVALID_PARAMETER);
    for (const DWORD size : {0U, 65537U})
        EXPECT_FAILS(CreateSection("Other", size), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(CreateFileMappingA(nullptr, nullptr, PAGE_READWRITE, 0, 8, "Other"), ERROR_NOT_SUPPORTED);
}

// Mutexes and critical sections: ownership, and what happens to it when the owner ends.
#include "kernel_kit.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

constexpr DWORD kSentinel = 0xBEEF;

// What a wait says on a thread of its own.
DWORD LookFromElsewhere(HANDLE mutex) {
    const Owned thread = StartThread([&] {
        const DWORD result = WaitForSingleObject(mutex, 0);
        if (result != WAIT_TIMEOUT && result != WAIT_FAILED) ReleaseMutex(mutex);
        return result;
    });
    DWORD result = WAIT_FAILED;
    if (Join(thread)) GetExitCodeThread(thread, &result);
    return result;
}

// A number that is only right if those who change it never do so at the same time.
volatile int* SharedNumber(const char* name) {
    const HANDLE section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 64, name);
    auto* number = static_cast<volatile int*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
    CloseHandle(section);
    return number;
}

} // namespace

TEST(Mutex, IsReleasedAsOftenAsItWasTaken) {
    for (const char* name : {static_cast<const char*>(nullptr), "M"}) {
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
        EXPECT_FALSE(ReleaseMutex(mutex));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_OWNER});
        EXPECT_EQ(LookFromElsewhere(mutex), DWORD{WAIT_OBJECT_0});
        const Owned stranger = StartThread([&] { return ReleaseMutex(mutex) ? 0 : GetLastError(); });
        ASSERT_EQ(WaitForSingleObject(mutex, 20000), DWORD{WAIT_OBJECT_0});
        ASSERT_TRUE(Join(stranger));
        DWORD error = 0;
        GetExitCodeThread(stranger, &error);
        EXPECT_EQ(error, DWORD{ERROR_NOT_OWNER});
    }
}

CHILD_PROCESS(TriesTheMutex) {
    const Owned mutex = CreateMutexA(nullptr, TRUE, "M"); // exists: not owned by this
    if (GetLastError() != ERROR_ALREADY_EXISTS) return 1;
    if (ReleaseMutex(mutex)) return 2;
    if (WaitForSingleObject(mutex, 0) != WAIT_TIMEOUT) return 3;
    if (WaitForSingleObject(mutex, 120) != WAIT_TIMEOUT) return 4;
    child.Say("busy");
    if (WaitForSingleObject(mutex, 20000) != WAIT_OBJECT_0) return 5;
    return ReleaseMutex(mutex) ? 0 : 6;
}

TEST(Mutex, CreatedOwnedExcludesOtherProcessesUntilItIsReleased) {
    const Owned mutex = CreateMutexA(nullptr, TRUE, "M");
    TestProcess other("TriesTheMutex");
    EXPECT_EQ(other.Hear(), "busy");
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(other.Wait(), 0);
}

CHILD_PROCESS(CountsUnderTheMutex) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    volatile int* number = SharedNumber("N");
    child.Say("ready");
    child.Hear();
    std::atomic<int> failures{0};
    HANDLE threads[2];
    for (HANDLE& thread : threads)
        thread = StartThread([&] {
            for (int i = 0; i < 3000; ++i) {
                if (WaitForSingleObject(mutex, 30000) != WAIT_OBJECT_0) failures.fetch_add(1);
                const int seen = *number;
                for (int work = 0; work < 200; ++work)
                    if (*number != seen) failures.fetch_add(1);
                *number = seen + 1;
                if (!ReleaseMutex(mutex)) failures.fetch_add(1);
            }
            return 0;
        });
    for (const HANDLE thread : threads)
        if (!Join(thread, 60000)) return 1;
    return failures.load() == 0 ? 0 : 2;
}

TEST(Mutex, ExcludesThreadsAndProcesses) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    volatile int* number = SharedNumber("N");
    std::vector<TestProcess> others;
    for (int i = 0; i < 3; ++i)
        others.emplace_back("CountsUnderTheMutex");
    for (TestProcess& other : others)
        other.Hear();
    for (TestProcess& other : others)
        other.Tell("go");
    for (TestProcess& other : others)
        EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(*number, 3 * 2 * 3000);
}

// A sleeper is woken by the release, and not only by the end of its own slice of 50 ms.
TEST(Mutex, ReleaseWakesTheSleeper) {
    for (const char* name : {static_cast<const char*>(nullptr), "M"}) {
        const Owned mutex = CreateMutexA(nullptr, TRUE, name);
        const Owned taken = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        const Owned next = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        constexpr int kRounds = 200;
        std::atomic<DWORD> id{0};
        const Owned sleeper = StartThread([&] {
            for (int round = 0; round < kRounds; ++round) {
                id.store(GetCurrentThreadId());
                if (WaitForSingleObject(mutex, 20000) != WAIT_OBJECT_0) return 1;
                id.store(0);
                ReleaseMutex(mutex);
                SetEvent(taken);
                WaitForSingleObject(next, 20000);
            }
            return 0;
        });
        const double begin = NowMs();
        for (int round = 0; round < kRounds; ++round) {
            while (id.load() == 0 || !IsAsleep(id.load()))
                Sleep(0);
            ASSERT_TRUE(ReleaseMutex(mutex));
            ASSERT_EQ(WaitForSingleObject(taken, 20000), DWORD{WAIT_OBJECT_0});
            ASSERT_EQ(WaitForSingleObject(mutex, 20000), DWORD{WAIT_OBJECT_0});
            SetEvent(next);
        }
        EXPECT_TRUE(Join(sleeper));
        EXPECT_LT(NowMs() - begin, kRounds * 50 / 4);
        ReleaseMutex(mutex);
    }
}

TEST(Mutex, IsAbandonedOnceByAThreadThatEnds) {
    for (const char* name : {static_cast<const char*>(nullptr), "M"}) {
        SCOPED_TRACE(name != nullptr ? name : "none");
        const Owned mutex = CreateMutexA(nullptr, FALSE, name);
        const Owned event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        const HANDLE both[] = {event, mutex};
        for (const bool blocked : {false, true}) {
            SCOPED_TRACE(blocked);
            const Owned taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
            const Owned owner = StartThread([&] {
                WaitForSingleObject(mutex, 20000);
                WaitForSingleObject(mutex, 20000);
                SetEvent(taken);
                if (blocked) PauseMs(30); // ends while the other waits
                return 0;
            });
            WaitForSingleObject(taken, 20000);
            if (!blocked) Join(owner);
            SetLastError(kSentinel);
            EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 20000), DWORD{WAIT_ABANDONED_0 + 1});
            EXPECT_EQ(GetLastError(), kSentinel);
            EXPECT_EQ(LookFromElsewhere(mutex), DWORD{WAIT_TIMEOUT}) << "abandoned, but owned now";
            EXPECT_TRUE(ReleaseMutex(mutex));
            EXPECT_FALSE(ReleaseMutex(mutex)) << "once";
            EXPECT_EQ(WaitForSingleObject(mutex, 0), DWORD{WAIT_OBJECT_0}) << "said once";
            EXPECT_TRUE(ReleaseMutex(mutex));
            EXPECT_TRUE(Join(owner));
        }
    }
}

CHILD_PROCESS(OwnsTheMutex) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    if (!child.arguments.empty()) child.Say("has it open");
    const DWORD result = WaitForSingleObject(mutex, 20000);
    child.Say(result == WAIT_OBJECT_0 ? "owns" : result == WAIT_ABANDONED ? "owns, abandoned" : "failed");
    child.Hear();
    return 0; // leaves without a release
}

TEST(Mutex, OfAProcessThatEndsIsAbandoned) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    for (int round = 0; round < 20; ++round) {
        const bool killed = round % 2 == 0;
        SCOPED_TRACE(killed);
        TestProcess owner("OwnsTheMutex");
        ASSERT_EQ(owner.Hear(), "owns");
        const Owned waiter = StartThread([&] {
            const DWORD result = WaitForSingleObject(mutex, 20000);
            return ReleaseMutex(mutex) ? result : WAIT_FAILED;
        });
        PauseMs(5);
        const double end = NowMs();
        if (killed)
            owner.KillOnly();
        else
            owner.Tell("leave");
        ASSERT_TRUE(Join(waiter));
        EXPECT_LT(NowMs() - end, killed ? 1000.0 : 20000.0); // about 50 ms, on a machine that is not loaded
        DWORD result = 0;
        GetExitCodeThread(waiter, &result);
        EXPECT_EQ(result, DWORD{WAIT_ABANDONED});
        EXPECT_EQ(WaitForSingleObject(mutex, 0), DWORD{WAIT_OBJECT_0}); // said once, to one
        ReleaseMutex(mutex);
    }
}

CHILD_PROCESS(CountsAndMarks) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    volatile int* inside = SharedNumber("Inside");
    volatile int* abandoned = SharedNumber("Abandoned");
    child.Say("ready");
    for (;;) {
        const DWORD result = WaitForSingleObject(mutex, 30000);
        if (result == WAIT_ABANDONED)
            *abandoned = *abandoned + 1;
        else if (result != WAIT_OBJECT_0 || *inside != 0)
            return 1; // somebody else is inside, or died there untold
        *inside = 1;
        if (!child.arguments.empty()) PauseMs(1); // most of a victim's life
        if (*inside != 1) return 2;
        *inside = 0;
        if (!ReleaseMutex(mutex)) return 3;
        if (child.arguments.empty()) Sleep(1);
    }
}

// Processes are killed wherever they are; two live on throughout. Nobody is ever in the section with another, and
// whoever dies in it is reported.
TEST(Mutex, SurvivesAStormOfKills) {
    const Owned mutex = CreateMutexA(nullptr, FALSE, "M");
    volatile int* abandoned = SharedNumber("Abandoned");
    volatile int* inside = SharedNumber("Inside");
    TestProcess one("CountsAndMarks");
    TestProcess two("CountsAndMarks");
    one.Hear();
    two.Hear();
    int seenInside = 0;
    for (int round = 0; round < 40; ++round) {
        TestProcess victim("CountsAndMarks", {"long"});
        victim.Hear();
        PauseMs(round % 23);
        victim.Kill();
        // Who holds up the others? Nobody, for long.
        const DWORD result = WaitForSingleObject(mutex, 20000);
        ASSERT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) << round;
        if (result == WAIT_ABANDONED) *abandoned = *abandoned + 1;
        if (*inside != 0) {
            ++seenInside;
            EXPECT_EQ(result, DWORD{WAIT_ABANDONED});
        }
        *inside = 0;
        ASSERT_TRUE(ReleaseMutex(mutex));
    }
    EXPECT_TRUE(one.Running());
    EXPECT_TRUE(two.Running());
    EXPECT_GT(*abandoned, 0) << "no kill hit the section: the test shows nothing";
    std::printf("%d of 40 deaths were inside, %d of them seen from here\n", *abandoned, seenInside);
}

TEST(Mutex, WhoseLastHandleIsClosedIsGoneOrStaysOwned) {
    {
        Owned mutex = CreateMutexA(nullptr, TRUE, "Alone");
        mutex.Close();
        EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, "Alone"), nullptr);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_TRUE(ObjectFiles().empty());
        const Owned fresh = CreateMutexA(nullptr, FALSE, "Alone");
        EXPECT_EQ(LookFromElsewhere(fresh), DWORD{WAIT_OBJECT_0});
    }
    TestProcess other("OwnsTheMutex");
    ASSERT_EQ(other.Hear(), "owns");
    const Owned first = StartThread([&] {
        Owned mutex = CreateMutexA(nullptr, FALSE, "M");
        other.Kill();
        if (WaitForSingleObject(mutex, 20000) != WAIT_ABANDONED) return 1;
        TestProcess second("OwnsTheMutex", {"announce"}); // and waits for it
        if (second.Hear() != "has it open") return 5;
        mutex.Close(); // the last handle here; the thread owns it to its end
        const Owned again = OpenMutexA(SYNCHRONIZE, FALSE, "M");
        if (WaitForSingleObject(again, 0) != WAIT_OBJECT_0) return 2; // once more
        if (!ReleaseMutex(again) || !ReleaseMutex(again)) return 3;
        return second.Hear() == "owns" ? 0 : 4;
    });
    ASSERT_TRUE(Join(first, 60000));
    DWORD result = 99;
    GetExitCodeThread(first, &result);
    EXPECT_EQ(result, 0U);
}

TEST(CriticalSection, ExcludesAndRecurs) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    int number = 0; // under the section
    HANDLE threads[4];
    for (HANDLE& thread : threads)
        thread = StartThread([&] {
            for (int i = 0; i < 20000; ++i) {
                EnterCriticalSection(&section);
                if (!TryEnterCriticalSection(&section)) return 1;
                ++number;
                LeaveCriticalSection(&section);
                if (i % 64 == 0) Sleep(0);
                LeaveCriticalSection(&section);
            }
            return 0;
        });
    for (const HANDLE thread : threads) {
        EXPECT_TRUE(Join(thread, 60000));
        DWORD code = 99;
        GetExitCodeThread(thread, &code);
        EXPECT_EQ(code, 0U);
        CloseHandle(thread);
    }
    EXPECT_EQ(number, 4 * 20000);

    EnterCriticalSection(&section);
    const Owned other = StartThread([&] {
        if (TryEnterCriticalSection(&section)) return 1;
        LeaveCriticalSection(&section); // not its own: nothing happens
        return TryEnterCriticalSection(&section) ? 2 : 0;
    });
    EXPECT_TRUE(Join(other));
    DWORD code = 99;
    GetExitCodeThread(other, &code);
    EXPECT_EQ(code, 0U);
    LeaveCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section));
    LeaveCriticalSection(&section);
    DeleteCriticalSection(&section);
}

TEST(Section, IsZeroAtFirstSharedAndGoneWithItsLastUser) {
    const Owned section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8, "Counters");
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
    auto* one = static_cast<DWORD*>(MapViewOfFile(section, FILE_MAP_WRITE, 0, 0, 0));
    auto* two = static_cast<const DWORD*>(MapViewOfFile(section, FILE_MAP_READ, 0, 0, 8));
    ASSERT_TRUE(one != nullptr && two != nullptr);
    EXPECT_EQ(one[0] | one[1], 0U);
    one[1] = 77;
    EXPECT_EQ(two[1], 77U);
    // A second creator gets the same one, whatever size it names.
    const Owned again = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, "Global\\Counters");
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(MapViewOfFile(again, FILE_MAP_WRITE, 0, 0, 9), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_TRUE(UnmapViewOfFile(one));
    EXPECT_FALSE(UnmapViewOfFile(one));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ADDRESS});
    EXPECT_TRUE(UnmapViewOfFile(two));

    struct Row {
        HANDLE file;
        DWORD protection;
        DWORD high;
        DWORD low;
        DWORD error;
    };
    for (const Row& row : {Row{nullptr, PAGE_READWRITE, 0, 8, ERROR_NOT_SUPPORTED},
                           Row{INVALID_HANDLE_VALUE, PAGE_READONLY, 0, 8, ERROR_NOT_SUPPORTED},
                           Row{INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, 0, ERROR_INVALID_PARAMETER},
                           Row{INVALID_HANDLE_VALUE, PAGE_READWRITE, 1, 8, ERROR_INVALID_PARAMETER},
                           Row{INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, 65537, ERROR_INVALID_PARAMETER}}) {
        EXPECT_EQ(CreateFileMappingA(row.file, nullptr, row.protection, row.high, row.low, "Other"), nullptr);
        EXPECT_EQ(GetLastError(), row.error);
    }
    for (const DWORD access : {0U, 1U, 0x20U, FILE_MAP_WRITE | 1U}) {
        EXPECT_EQ(MapViewOfFile(section, access, 0, 0, 0), nullptr);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    }
}

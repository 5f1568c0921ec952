// Handles, events and waits.
#include "campaign.h"
#include "posix_kit.h"
#include "win32_kit.h"

#include <atomic>
#include <vector>

namespace {

HANDLE HandleOf(ULONG_PTR value) {
    return reinterpret_cast<HANDLE>(value);
}

// Sets the event once the calling thread is asleep.
HANDLE SetSoon(HANDLE event) {
    return StartThread([event, waiter = GetCurrentThreadId()]() -> DWORD {
        if (!WaitUntil([&] { return IsAsleep(waiter); })) return ERROR_TIMEOUT;
        return SetEvent(event) ? 0 : GetLastError();
    });
}

} // namespace

TEST(Handles, Fit32BitsAndStaleOnesStayStale) {
    NeedsTheLayer("handles that are not used again");
    const HANDLE stale = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    ASSERT_TRUE(CloseHandle(stale));
    std::vector<HANDLE> later;
    for (int i = 0; i < 2000; ++i) { // the place of the stale one is used again
        later.push_back(CreateEventA(nullptr, TRUE, TRUE, nullptr));
        EXPECT_NE(later.back(), stale);
        if (i % 2 == 0) continue;
        EXPECT_TRUE(CloseHandle(later.front()));
        later.erase(later.begin());
    }
    const auto value = reinterpret_cast<ULONG_PTR>(later.back());
    EXPECT_EQ(value % 4, 0U);
    EXPECT_LE(value, 0x7FFFFFFFU);
    EXPECT_EQ(ULongToHandle(HandleToULong(later.back())), later.back());
    for (ULONG_PTR low = 1; low < 4; ++low)
        EXPECT_EQ(Look(HandleOf(value | low)), DWORD{WAIT_OBJECT_0}) << "the low bits are the caller's";
    for (const HANDLE foreign : {HANDLE{}, stale, HandleOf(0x7FFFFFFC), HandleOf(0xFFFFFFF0),
                                 HandleOf(value + 0x100000000), INVALID_HANDLE_VALUE, GetCurrentThread()}) {
        SCOPED_TRACE(foreign);
        EXPECT_FAILS(Look(foreign) != WAIT_FAILED, ERROR_INVALID_HANDLE);
        EXPECT_FAILS(SetEvent(foreign), ERROR_INVALID_HANDLE);
        // Pseudo handles may be closed, to no effect.
        if (foreign == GetCurrentProcess() || foreign == GetCurrentThread()) continue;
        EXPECT_FAILS(CloseHandle(foreign), ERROR_INVALID_HANDLE);
    }
}

// Handles are closed while other threads are in calls with them: every call ends, with success or with an invalid
// handle.
TEST(Handles, MayBeClosedUnderUse) {
    std::atomic<HANDLE> shared{nullptr};
    std::atomic<bool> over{false};
    std::atomic<unsigned> used{0};
    const auto use = [&] {
        while (!over) {
            SetLastError(ERROR_SUCCESS);
            if (SetEvent(shared) && Wait(shared, 1) == WAIT_OBJECT_0) ++used;
            const DWORD error = GetLastError();
            if (error != ERROR_SUCCESS && error != ERROR_INVALID_HANDLE) return error;
        }
        return DWORD{ERROR_SUCCESS};
    };
    const HANDLE users[] = {StartThread(use), StartThread(use), StartThread(use)};
    for (int i = 0; i < 3000 || (used == 0 && i < 1000000); ++i) {
        shared = CreateEventA(nullptr, i % 2, FALSE, nullptr);
        if (i % 16 == 0) Sleep(0);
        ASSERT_TRUE(CloseHandle(shared));
    }
    over = true;
    for (const HANDLE user : users)
        EXPECT_EQ(Finish(user), DWORD{ERROR_SUCCESS});
    EXPECT_GT(used, 0U);
}

TEST(Wait, TakesTheLowestIndexAndConsumesOnlyThat) {
    HANDLE objects[MAXIMUM_WAIT_OBJECTS];
    for (HANDLE& object : objects)
        object = CreateEventA(nullptr, &object == &objects[0], TRUE, nullptr); // the first one manual
    EXPECT_EQ(WaitForMultipleObjects(64, objects, FALSE, 0), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(WaitForMultipleObjects(64, objects, FALSE, INFINITE), DWORD{WAIT_OBJECT_0}); // stays set
    ResetEvent(objects[0]);
    for (DWORD i = 1; i < 64; ++i)
        EXPECT_EQ(WaitForMultipleObjects(64, objects, FALSE, i % 2 != 0 ? 0 : INFINITE), WAIT_OBJECT_0 + i);
    EXPECT_EQ(WaitForMultipleObjects(64, objects, FALSE, 20), DWORD{WAIT_TIMEOUT});
    const HANDLE twice[] = {objects[0], objects[5], objects[5]};
    SetEvent(objects[5]);
    EXPECT_EQ(WaitForMultipleObjects(3, twice, FALSE, 0), DWORD{WAIT_OBJECT_0 + 1});
    EXPECT_EQ(WaitForMultipleObjects(3, twice, FALSE, 0), DWORD{WAIT_TIMEOUT});
}

TEST(Wait, LeavesTheLastErrorAloneUnlessItFails) {
    const HANDLE set = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    const HANDLE unset = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    const struct {
        std::vector<HANDLE> objects;
        DWORD milliseconds, result, error;
        BOOL all = FALSE;
        bool onTheLayer = false;
    } rows[] = {
        {{set}, INFINITE, WAIT_OBJECT_0, kSentinel},
        {{unset, mutex}, INFINITE, WAIT_OBJECT_0 + 1, kSentinel},
        {{unset}, 0, WAIT_TIMEOUT, kSentinel},
        {{unset}, 5, WAIT_TIMEOUT, kSentinel},
        {{}, 0, WAIT_FAILED, ERROR_INVALID_PARAMETER},
        {std::vector<HANDLE>(65, set), 0, WAIT_FAILED, ERROR_INVALID_PARAMETER},
        {{set, nullptr}, 0, WAIT_FAILED, ERROR_INVALID_HANDLE},
        {{set, GetCurrentProcess()}, 0, WAIT_FAILED, ERROR_INVALID_HANDLE, FALSE, true},
        {{set, set}, 0, WAIT_FAILED, ERROR_NOT_SUPPORTED, TRUE, true},
    };
    for (const auto& row : rows) {
        if (row.onTheLayer && !OnTheLayer()) continue;
        SetLastError(kSentinel);
        const auto count = static_cast<DWORD>(row.objects.size());
        EXPECT_EQ(WaitForMultipleObjects(count, row.objects.data(), row.all, row.milliseconds), row.result)
            << &row - rows;
        EXPECT_EQ(GetLastError(), row.error) << &row - rows;
    }
}

TEST(Wait, LastsUntilItsDeadlineUnderAStormOfSignals) {
    const HANDLE both[] = {CreateEventA(nullptr, TRUE, FALSE, nullptr), CreateEventA(nullptr, FALSE, FALSE, nullptr)};
    StartSignalStorm();
    double begin = NowMs();
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 100), DWORD{WAIT_TIMEOUT});
    EXPECT_GE(NowMs() - begin, 99.0);
    begin = NowMs();
    Sleep(50);
    EXPECT_GE(NowMs() - begin, 49.0);
    const Owned setter = SetSoon(both[1]);
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, INFINITE), DWORD{WAIT_OBJECT_0 + 1});
    EXPECT_EQ(Finish(setter), 0U);
}

TEST(Wait, KeepsItsObjectWhenTheHandleIsClosed) {
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "Kept");
    DWORD id = 0;
    const Owned waiter = StartThread([&] { return Wait(event, 100); }, &id);
    EXPECT_TRUE(WaitUntil([&] { return IsAsleep(id); }));
    ASSERT_TRUE(CloseHandle(event));
    EXPECT_EQ(Finish(waiter), DWORD{WAIT_TIMEOUT}) << "it runs to its end";
    EXPECT_TRUE(ObjectFiles().empty()) << "and then the object is gone";
}

// Once with the kernel's wait for many words and once without: every kind of wait ends, on whichever object.
CHILD_PROCESS(WaitsForMany) {
    HANDLE objects[MAXIMUM_WAIT_OBJECTS];
    for (HANDLE& object : objects)
        object = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (const DWORD index : {0U, 1U, 40U, 63U}) {
        const Owned setter = SetSoon(objects[index]);
        if (WaitForMultipleObjects(64, objects, FALSE, 20000) != WAIT_OBJECT_0 + index) return 1;
        if (Finish(setter) != 0) return 2;
    }
    const double begin = NowMs();
    if (WaitForMultipleObjects(64, objects, FALSE, 60) != WAIT_TIMEOUT) return 3;
    if (WaitForSingleObject(objects[0], 60) != WAIT_TIMEOUT) return 4;
    if (NowMs() - begin < 119) return 5;
    DWORD id = 0;
    const Owned sleeper = StartThread([&] { return WaitForMultipleObjects(64, objects, FALSE, INFINITE); }, &id);
    if (!WaitUntil([&] { return IsAsleep(id); })) return 7;
    return TerminateThread(sleeper, 1) && Finish(sleeper) == 1 ? 0 : 6;
}

CHILD_PROCESS(AnswersEvents) {
    const Owned question = OpenEventA(SYNCHRONIZE, FALSE, "Question");
    const Owned answer = OpenEventA(EVENT_MODIFY_STATE, FALSE, "Global\\Answer");
    child.Say("ready");
    for (int rounds = std::stoi(child.arguments.at(0)); rounds > 0; --rounds) {
        if (Wait(question) != WAIT_OBJECT_0) return 1;
        if (!SetEvent(answer)) return 2;
    }
    return 0;
}

TEST(Wait, WorksWithAndWithoutTheKernelsCallForManyWords) {
    const Owned question = CreateEventA(nullptr, FALSE, FALSE, "Global\\Question");
    const Owned answer = CreateEventA(nullptr, FALSE, FALSE, "Answer");
    for (const char* withoutWaitv : {"0", "1"}) {
        const Environment environment{{"ORIEL_NO_FUTEX_WAITV", withoutWaitv}};
        EXPECT_EQ(TestProcess("WaitsForMany", {}, environment).Wait(), 0);
        constexpr int rounds = 1000;
        TestProcess other("AnswersEvents", {std::to_string(rounds)}, environment);
        EXPECT_EQ(other.Hear(), "ready");
        for (int round = 0; round < rounds; ++round) {
            ASSERT_TRUE(SetEvent(question));
            ASSERT_EQ(Wait(answer), DWORD{WAIT_OBJECT_0}) << round;
        }
        EXPECT_EQ(other.Wait(), 0);
    }
}

TEST(Event, SetResetAndPulseDoWhatTheirKindSays) {
    for (const BOOL manual : {TRUE, FALSE})
        for (const char* name : {static_cast<const char*>(nullptr), "Named"}) {
            SCOPED_TRACE(testing::Message() << "manual " << manual << " name " << (name != nullptr ? name : "none"));
            const Owned event = CreateEventA(nullptr, manual, TRUE, name);
            for (int twiceIsOnce = 0; twiceIsOnce < 2; ++twiceIsOnce) {
                EXPECT_EQ(Look(event), DWORD{WAIT_OBJECT_0});
                EXPECT_EQ(Look(event), manual ? DWORD{WAIT_OBJECT_0} : DWORD{WAIT_TIMEOUT});
                EXPECT_TRUE(SetEvent(event) && SetEvent(event));
            }
            EXPECT_TRUE(ResetEvent(event) && ResetEvent(event));
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
            if (!manual) {
                if (OnTheLayer()) EXPECT_FAILS(PulseEvent(event), ERROR_NOT_SUPPORTED);
                continue;
            }
            EXPECT_TRUE(PulseEvent(event)); // nobody waits
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
            EXPECT_TRUE(SetEvent(event) && PulseEvent(event)); // clears it
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
        }
}

// A waiter that has begun its wait is let through by one set or pulse, however soon the event is reset. With a boolean
// in the event's place most rounds fail.
TEST(EventCampaign, NoRegisteredWaiterMissesASetThatIsResetAtOnce) {
    NeedsTheLayer("a way to see that a thread waits");
    const struct {
        BOOL manual;
        bool pulse;
        const char* name;
    } rows[] = {{TRUE, false, "Signal"}, {TRUE, true, nullptr}, {FALSE, false, "Signal"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "manual " << row.manual << " pulse " << row.pulse);
        const int rounds = Rounds(3000, 100000);
        const Owned event = CreateEventA(nullptr, row.manual, FALSE, row.name);
        const Owned through = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        std::atomic<int> resets{0};
        std::atomic<int> missed{0};
        std::atomic<DWORD> id{0};
        const Owned waiter = StartThread([&] {
            id = GetCurrentThreadId();
            for (int i = 1; i <= rounds && missed <= 3; ++i) {
                if (Wait(event, 5000) != WAIT_OBJECT_0) ++missed;
                while (resets != i)
                    Sleep(0);
                SetEvent(through);
            }
            return 0;
        });
        for (int i = 1; i <= rounds && missed <= 3; ++i) {
            while (id == 0 || !IsAsleep(id)) // it sleeps nowhere but in the wait
                Sleep(0);
            if (row.pulse)
                PulseEvent(event);
            else
                SetEvent(event), ResetEvent(event);
            resets = i;
            ASSERT_EQ(Wait(through), DWORD{WAIT_OBJECT_0});
        }
        EXPECT_EQ(Finish(waiter), 0U);
        EXPECT_EQ(missed, 0);
    }
}

// Sets by one thread, with no reset but the waiters' own: every set that found the event unset is taken once.
TEST(Event, OfTheAutomaticKindIsTakenExactlyOnce) {
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, "Taken");
    const HANDLE answer = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    constexpr int kSets = 5000;
    std::atomic<int> taken{0};
    std::atomic<bool> over{false};
    const auto take = [&] {
        while (!over)
            if (Wait(event, 20) == WAIT_OBJECT_0) ++taken, SetEvent(answer);
        return 0;
    };
    const HANDLE waiters[] = {StartThread(take), StartThread(take)};
    for (int i = 0; i < kSets; ++i) {
        ASSERT_TRUE(SetEvent(event));
        ASSERT_EQ(Wait(answer), DWORD{WAIT_OBJECT_0}) << i;
    }
    over = true;
    for (const HANDLE waiter : waiters)
        EXPECT_EQ(Finish(waiter), 0U);
    EXPECT_EQ(taken, kSets);
}

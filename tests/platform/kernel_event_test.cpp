// Handles, events and waits.
#include "kernel_kit.h"
#include "private_machine.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

constexpr DWORD kSentinel = 0xBEEF;

DWORD Look(HANDLE handle) {
    return WaitForSingleObject(handle, 0);
}

// Runs the call with a sentinel as the last error.
template <typename Call>
DWORD ErrorOf(Call call) {
    SetLastError(kSentinel);
    call();
    return GetLastError();
}

} // namespace

TEST(Handles, AreMultiplesOfFourThatFit32BitsAndIgnoreTheirLowBits) {
    const Owned event = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    const auto value = reinterpret_cast<ULONG_PTR>(static_cast<HANDLE>(event));
    EXPECT_EQ(value % 4, 0U);
    EXPECT_LE(value, 0x7FFFFFFFU);
    EXPECT_EQ(ULongToHandle(HandleToULong(static_cast<HANDLE>(event))), static_cast<HANDLE>(event));
    for (ULONG_PTR low = 1; low < 4; ++low)
        EXPECT_EQ(Look(reinterpret_cast<HANDLE>(value | low)), WAIT_OBJECT_0);
}

TEST(Handles, OfNothingAreRefusedAndStaleOnesStayStale) {
    const HANDLE stale = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    ASSERT_TRUE(CloseHandle(stale));
    std::vector<HANDLE> later;
    for (int i = 0; i < 2000; ++i) { // the place of the stale one is used again
        const HANDLE handle = CreateEventA(nullptr, TRUE, TRUE, nullptr);
        EXPECT_NE(handle, stale);
        later.push_back(handle);
        if (i % 2 != 0) {
            CloseHandle(later.front());
            later.erase(later.begin());
        }
    }
    const HANDLE foreign[] = {nullptr,
                              stale,
                              reinterpret_cast<HANDLE>(ULONG_PTR{0x7FFFFFFC}),
                              reinterpret_cast<HANDLE>(ULONG_PTR{0xFFFFFFF0}),
                              reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(later.back()) + 0x100000000),
                              INVALID_HANDLE_VALUE,
                              GetCurrentThread()};
    for (const HANDLE handle : foreign) {
        SCOPED_TRACE(handle);
        EXPECT_EQ(ErrorOf([&] { EXPECT_EQ(Look(handle), WAIT_FAILED); }), DWORD{ERROR_INVALID_HANDLE});
        EXPECT_EQ(ErrorOf([&] { EXPECT_FALSE(SetEvent(handle)); }), DWORD{ERROR_INVALID_HANDLE});
        if (handle == GetCurrentProcess() || handle == GetCurrentThread()) continue; // may be closed, to no effect
        EXPECT_EQ(ErrorOf([&] { EXPECT_FALSE(CloseHandle(handle)); }), DWORD{ERROR_INVALID_HANDLE});
    }
    for (const HANDLE handle : later)
        EXPECT_TRUE(CloseHandle(handle));
}

// Handles are closed while other threads are in calls with them: every call ends, with success or with an invalid
// handle.
TEST(Handles, MayBeClosedUnderUse) {
    std::atomic<HANDLE> shared{nullptr};
    std::atomic<bool> over{false};
    std::atomic<unsigned> used{0};
    std::vector<HANDLE> users;
    for (int i = 0; i < 3; ++i)
        users.push_back(StartThread([&] {
            while (!over.load()) {
                const HANDLE handle = shared.load();
                SetLastError(ERROR_SUCCESS);
                if (SetEvent(handle) && WaitForSingleObject(handle, 1) == WAIT_OBJECT_0) used.fetch_add(1);
                const DWORD error = GetLastError();
                if (error != ERROR_SUCCESS && error != ERROR_INVALID_HANDLE) return error;
            }
            return DWORD{ERROR_SUCCESS};
        }));
    for (int i = 0; i < 3000; ++i) {
        const HANDLE handle = CreateEventA(nullptr, i % 2, FALSE, nullptr);
        shared.store(handle);
        if (i % 16 == 0) Sleep(0);
        ASSERT_TRUE(CloseHandle(handle));
    }
    over.store(true);
    for (const HANDLE user : users) {
        EXPECT_TRUE(Join(user));
        DWORD code = 1;
        EXPECT_TRUE(GetExitCodeThread(user, &code));
        EXPECT_EQ(code, DWORD{ERROR_SUCCESS});
        CloseHandle(user);
    }
    EXPECT_GT(used.load(), 0U);
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
    EXPECT_EQ(WaitForMultipleObjects(64, objects, FALSE, 0), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(WaitForMultipleObjects(64, objects, FALSE, 20), DWORD{WAIT_TIMEOUT});

    // Asleep on all 64, woken by the last one.
    const Owned setter = StartThread([&] {
        Sleep(20);
        SetEvent(objects[63]);
        return 0;
    });
    EXPECT_EQ(WaitForMultipleObjects(64, objects, FALSE, 20000), DWORD{WAIT_OBJECT_0 + 63});
    EXPECT_TRUE(Join(setter));

    const HANDLE twice[] = {objects[0], objects[5], objects[5]};
    SetEvent(objects[5]);
    EXPECT_EQ(WaitForMultipleObjects(3, twice, FALSE, 0), DWORD{WAIT_OBJECT_0 + 1});
    EXPECT_EQ(WaitForMultipleObjects(3, twice, FALSE, 0), DWORD{WAIT_TIMEOUT});
    for (const HANDLE object : objects)
        CloseHandle(object);
}

TEST(Wait, LeavesTheLastErrorAloneUnlessItFails) {
    const Owned set = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    const Owned unset = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const Owned mutex = CreateMutexA(nullptr, FALSE, nullptr);
    std::vector<HANDLE> tooMany(65, set);
    struct Row {
        const char* what;
        std::vector<HANDLE> objects;
        BOOL all;
        DWORD milliseconds;
        DWORD result;
        DWORD error;
    };
    const Row rows[] = {
        {"set", {set}, FALSE, INFINITE, WAIT_OBJECT_0, kSentinel},
        {"mutex", {unset, mutex}, FALSE, INFINITE, WAIT_OBJECT_0 + 1, kSentinel},
        {"zero time", {unset}, FALSE, 0, WAIT_TIMEOUT, kSentinel},
        {"some time", {unset}, FALSE, 5, WAIT_TIMEOUT, kSentinel},
        {"none", {}, FALSE, 0, WAIT_FAILED, ERROR_INVALID_PARAMETER},
        {"65", tooMany, FALSE, 0, WAIT_FAILED, ERROR_INVALID_PARAMETER},
        {"all", {set, set}, TRUE, 0, WAIT_FAILED, ERROR_NOT_SUPPORTED},
        {"null among them", {set, nullptr}, FALSE, 0, WAIT_FAILED, ERROR_INVALID_HANDLE},
        {"pseudo handle", {set, GetCurrentProcess()}, FALSE, 0, WAIT_FAILED, ERROR_INVALID_HANDLE},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(ErrorOf([&] {
                      EXPECT_EQ(WaitForMultipleObjects(static_cast<DWORD>(row.objects.size()), row.objects.data(),
                                                       row.all, row.milliseconds),
                                row.result);
                  }),
                  row.error);
    }
}

TEST(Wait, LastsUntilItsDeadlineUnderAStormOfSignals) {
    const Owned unset = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const Owned other = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HANDLE both[] = {unset, other};
    SignalStorm storm;
    for (int round = 0; round < 3; ++round) {
        double begin = NowMs();
        EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 100), DWORD{WAIT_TIMEOUT});
        EXPECT_GE(NowMs() - begin, 99.0);
        begin = NowMs();
        Sleep(50);
        EXPECT_GE(NowMs() - begin, 49.0);
    }
    const Owned setter = StartThread([&] {
        Sleep(30);
        SetEvent(other);
        return 0;
    });
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, INFINITE), DWORD{WAIT_OBJECT_0 + 1});
    EXPECT_TRUE(Join(setter));
    EXPECT_GT(storm.Sent(), 100U);
}

TEST(Wait, KeepsItsObjectWhenTheHandleIsClosed) {
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, "Kept");
    std::atomic<bool> waiting{false};
    const Owned waiter = StartThread([&] {
        waiting.store(true);
        return WaitForSingleObject(event, 300);
    });
    WaitUntil([&] { return waiting.load(); });
    PauseMs(20);
    ASSERT_TRUE(CloseHandle(event));
    ASSERT_TRUE(Join(waiter));
    DWORD result = 0;
    EXPECT_TRUE(GetExitCodeThread(waiter, &result));
    EXPECT_EQ(result, DWORD{WAIT_TIMEOUT}); // it ran to its end
    EXPECT_TRUE(ObjectFiles().empty());     // and then the object was gone
}

TEST(Event, SetResetAndPulseDoWhatTheirKindSays) {
    for (const BOOL manual : {TRUE, FALSE}) {
        for (const char* name : {static_cast<const char*>(nullptr), "Named"}) {
            SCOPED_TRACE(testing::Message() << "manual " << manual << " name " << (name != nullptr ? name : "none"));
            const Owned event = CreateEventA(nullptr, manual, TRUE, name);
            EXPECT_EQ(Look(event), DWORD{WAIT_OBJECT_0});
            EXPECT_EQ(Look(event), manual ? DWORD{WAIT_OBJECT_0} : DWORD{WAIT_TIMEOUT});
            EXPECT_TRUE(SetEvent(event) && SetEvent(event)); // twice is once
            EXPECT_EQ(Look(event), DWORD{WAIT_OBJECT_0});
            EXPECT_EQ(Look(event), manual ? DWORD{WAIT_OBJECT_0} : DWORD{WAIT_TIMEOUT});
            EXPECT_TRUE(SetEvent(event) && ResetEvent(event) && ResetEvent(event));
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
            if (!manual) {
                EXPECT_EQ(ErrorOf([&] { EXPECT_FALSE(PulseEvent(event)); }), DWORD{ERROR_NOT_SUPPORTED});
                continue;
            }
            EXPECT_TRUE(PulseEvent(event)); // nobody waits
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
            EXPECT_TRUE(SetEvent(event) && PulseEvent(event)); // clears it
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
        }
    }
}

// A waiter that has begun its wait is let through by one set or pulse, however soon the event is reset. With a boolean
// in the event's place most rounds fail.
TEST(Event, NoRegisteredWaiterMissesASetThatIsResetAtOnce) {
    struct Row {
        BOOL manual;
        bool pulse;
        const char* name;
        int rounds;
    };
    for (const Row& row :
         {Row{TRUE, false, "Signal", 100000}, Row{TRUE, true, nullptr, 20000}, Row{FALSE, false, "Signal", 20000}}) {
        SCOPED_TRACE(testing::Message() << "manual " << row.manual << " pulse " << row.pulse);
        const Owned event = CreateEventA(nullptr, row.manual, FALSE, row.name);
        const Owned through = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        std::atomic<int> resets{0};
        std::atomic<int> missed{0};
        std::atomic<DWORD> id{0};
        const Owned waiter = StartThread([&] {
            id.store(GetCurrentThreadId());
            for (int i = 1; i <= row.rounds; ++i) {
                if (WaitForSingleObject(event, 5000) != WAIT_OBJECT_0) missed.fetch_add(1);
                while (resets.load() != i)
                    Sleep(0);
                SetEvent(through);
            }
            return 0;
        });
        for (int i = 1; i <= row.rounds && missed.load() <= 3; ++i) {
            while (id.load() == 0 || !IsAsleep(id.load())) // it sleeps nowhere but in the wait
                PauseUs(10);
            if (row.pulse)
                PulseEvent(event);
            else
                SetEvent(event), ResetEvent(event);
            resets.store(i);
            ASSERT_EQ(WaitForSingleObject(through, 20000), DWORD{WAIT_OBJECT_0});
        }
        EXPECT_EQ(missed.load(), 0);
        if (missed.load() > 3) TerminateThread(waiter, 0);
        EXPECT_TRUE(Join(waiter, 60000));
    }
}

// Sets by one thread, with no reset but the waiters' own: every set that found the event unset is taken once.
TEST(Event, OfTheAutomaticKindIsTakenExactlyOnce) {
    const Owned event = CreateEventA(nullptr, FALSE, FALSE, "Taken");
    const Owned answer = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    constexpr int kSets = 20000;
    std::atomic<int> taken{0};
    std::atomic<bool> over{false};
    HANDLE waiters[2];
    for (HANDLE& waiter : waiters)
        waiter = StartThread([&] {
            while (!over.load())
                if (WaitForSingleObject(event, 20) == WAIT_OBJECT_0) {
                    taken.fetch_add(1);
                    SetEvent(answer);
                }
            return 0;
        });
    for (int i = 0; i < kSets; ++i) {
        ASSERT_TRUE(SetEvent(event));
        ASSERT_EQ(WaitForSingleObject(answer, 20000), DWORD{WAIT_OBJECT_0}) << i;
    }
    over.store(true);
    for (const HANDLE waiter : waiters) {
        EXPECT_TRUE(Join(waiter));
        CloseHandle(waiter);
    }
    EXPECT_EQ(taken.load(), kSets);
}

CHILD_PROCESS(AnswersEvents) {
    const Owned question = OpenEventA(SYNCHRONIZE, FALSE, "Question");
    const Owned answer = OpenEventA(EVENT_MODIFY_STATE, FALSE, "Global\\Answer");
    child.Say("ready");
    for (int rounds = std::stoi(child.arguments.at(0)); rounds > 0; --rounds) {
        if (WaitForSingleObject(question, 20000) != WAIT_OBJECT_0) return 1;
        if (!SetEvent(answer)) return 2;
    }
    return 0;
}

TEST(Event, PlaysPingPongBetweenTwoProcesses) {
    const Owned question = CreateEventA(nullptr, FALSE, FALSE, "Global\\Question");
    const Owned answer = CreateEventA(nullptr, FALSE, FALSE, "Answer");
    for (const char* withoutWaitv : {"0", "1"}) {
        const int rounds = *withoutWaitv == '0' ? 10000 : 2000;
        TestProcess other("AnswersEvents", {std::to_string(rounds)}, {{"ORIEL_NO_FUTEX_WAITV", withoutWaitv}});
        EXPECT_EQ(other.Hear(), "ready");
        for (int round = 0; round < rounds; ++round) {
            ASSERT_TRUE(SetEvent(question));
            ASSERT_EQ(WaitForSingleObject(answer, 20000), DWORD{WAIT_OBJECT_0}) << round;
        }
        EXPECT_EQ(other.Wait(), 0);
    }
}

// The kernel's wait for many words is missing: every kind of wait still ends, on whichever object.
CHILD_PROCESS(WaitsByPolling) {
    HANDLE objects[MAXIMUM_WAIT_OBJECTS];
    for (HANDLE& object : objects)
        object = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (const DWORD index : {0U, 1U, 40U, 63U}) {
        const Owned setter = StartThread([&] {
            Sleep(30);
            SetEvent(objects[index]);
            return 0;
        });
        if (WaitForMultipleObjects(64, objects, FALSE, 20000) != WAIT_OBJECT_0 + index) return 1;
        if (!Join(setter)) return 2;
    }
    const double begin = NowMs();
    if (WaitForMultipleObjects(64, objects, FALSE, 100) != WAIT_TIMEOUT) return 3;
    if (WaitForSingleObject(objects[0], 100) != WAIT_TIMEOUT) return 4;
    if (NowMs() - begin < 199) return 5;
    const Owned sleeper = StartThread([&] { return WaitForMultipleObjects(64, objects, FALSE, INFINITE); });
    Sleep(20);
    return TerminateThread(sleeper, 1) && Join(sleeper) ? 0 : 6;
}

TEST(Wait, WorksWhereTheKernelLacksTheCallForManyWords) {
    TestProcess other("WaitsByPolling", {}, {{"ORIEL_NO_FUTEX_WAITV", "1"}});
    EXPECT_EQ(other.Wait(), 0);
}

// Handles and waits: what is closed under use, signals, sleepers that must be woken.
#include "campaign.h"
#include "kit.h"

#include <atomic>
#include <csignal>
#include <oriel_wait.h>
#include <thread>
#include <tuple>

namespace {

HANDLE HandleOf(ULONG_PTR value) {
    return reinterpret_cast<HANDLE>(value);
}

// Sets the event once the calling thread is asleep.
HANDLE SetSoon(HANDLE event) {
    return StartThread([event, waiter = GetCurrentThreadId()]() -> DWORD {
        return WaitUntil([&] { return IsAsleep(waiter); }) ? Code(SetEvent(event)) : ERROR_TIMEOUT;
    });
}

} // namespace

TEST(Handles, Fit32BitsAndStaleOnesStayStale) {
    const HANDLE stale = NewEvent();
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
    EXPECT_EQ(Look(HandleOf(value | 3)), DWORD{WAIT_OBJECT_0}) << "the low bits are the caller's";
    for (const HANDLE foreign : {HANDLE{}, stale, HandleOf(0x7FFFFFFC), HandleOf(value + 0x100000000)}) {
        EXPECT_FAILS(Look(foreign) != WAIT_FAILED, ERROR_INVALID_HANDLE) << foreign;
        EXPECT_FAILS(SetEvent(foreign), ERROR_INVALID_HANDLE) << foreign;
        EXPECT_FAILS(CloseHandle(foreign), ERROR_INVALID_HANDLE) << foreign;
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
        shared = NewEvent(nullptr, i % 2);
        if (i % 16 == 0) Sleep(0);
        ASSERT_TRUE(CloseHandle(shared));
    }
    over = true;
    for (const HANDLE user : users)
        EXPECT_EQ(Finish(user), DWORD{ERROR_SUCCESS});
    EXPECT_GT(used, 0U);
}

// A signal without SA_RESTART every 100 us, whose handler does nothing.
TEST(Wait, LastsUntilItsDeadlineUnderAStormOfSignals) {
    const HANDLE both[] = {NewEvent(), NewEvent(nullptr, FALSE)};
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    std::thread([target = pthread_self()] {
        for (;; std::this_thread::sleep_for(std::chrono::microseconds(100)))
            pthread_kill(target, SIGUSR1);
    }).detach();
    const double begin = NowMs();
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 60), DWORD{WAIT_TIMEOUT});
    EXPECT_GE(NowMs() - begin, 59.0);
    Sleep(50);
    EXPECT_GE(NowMs() - begin, 108.0);
    const Owned setter = SetSoon(both[1]);
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, INFINITE), DWORD{WAIT_OBJECT_0 + 1});
    EXPECT_EQ(Finish(setter), 0U);
}

CHILD_PROCESS(AnswersEvents) {
    const HANDLE questions[] = {NewEvent(), OpenEventA(SYNCHRONIZE, FALSE, "Question")};
    const HANDLE answer = OpenEventA(EVENT_MODIFY_STATE, FALSE, "Global\\Answer");
    child.Say("ready");
    while (WaitForMultipleObjects(2, questions, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
        InterlockedIncrement(SharedNumber("Taken"));
        SetEvent(answer);
    }
    return 0;
}

// With two who wait, every set is taken once, by one of them.
TEST(Wait, WorksWithAndWithoutTheKernelsCallForManyWords) {
    const HANDLE question = NewEvent("Global\\Question", FALSE);
    const HANDLE answer = NewEvent("Answer", FALSE);
    for (const char* withoutWaitv : {"0", "1"}) {
        const Environment environment{{"ORIEL_NO_FUTEX_WAITV", withoutWaitv}};
        TestProcess one("AnswersEvents", {}, environment), other("AnswersEvents", {}, environment);
        EXPECT_EQ(one.Hear() + other.Hear(), "readyready");
        *SharedNumber("Taken") = 0;
        for (LONG round = 1; round <= 100; ++round) {
            ASSERT_TRUE(SetEvent(question));
            ASSERT_EQ(Wait(answer), DWORD{WAIT_OBJECT_0}) << round;
            ASSERT_EQ(*SharedNumber("Taken"), round);
        }
    }
}

struct CountedStep {
    HANDLE event; // set by every second step
    std::atomic<DWORD> thread{0};
    std::atomic<int> begun{0}, done{0};
};

void WINAPI DoCounted(void* context) {
    auto& step = *static_cast<CountedStep*>(context);
    step.thread = GetCurrentThreadId();
    if (++step.begun % 2 == 0) SetEvent(step.event);
    if (step.begun > 2) Sleep(30);
    ++step.done;
}

// Whoever waits does the step, from the first signal of its wait until the step's handle is closed, which waits for one
// that has begun.
TEST(Wait, DoesTheStepOfAnEvent) {
    const Owned signal = NewEvent("Signal");
    for (const BOOL manual : {FALSE, TRUE}) {
        const Owned event = NewEvent(nullptr, manual);
        CountedStep counted{event};
        const HANDLE step = OrielStepInWait(event, signal, &DoCounted, &counted);
        ASSERT_NE(step, nullptr);
        EXPECT_FAILS(OrielStepInWait(event, signal, &DoCounted, &counted), ERROR_ALREADY_EXISTS);
        EXPECT_FAILS(OrielStepInWait(signal, signal, &DoCounted, &counted), ERROR_INVALID_PARAMETER);
        std::atomic<DWORD> waiter{0};
        const auto wait = [&] { return waiter = GetCurrentThreadId(), Wait(event); };
        const auto signalUntil = [&](int begun) {
            return WaitUntil([&] { return PulseEvent(signal) && counted.begun >= begun; });
        };
        const HANDLE first = StartThread(wait);
        ASSERT_TRUE(signalUntil(2));
        EXPECT_EQ(Finish(first), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(counted.thread, waiter);
        ResetEvent(event);
        const HANDLE second = StartThread(wait);
        ASSERT_TRUE(signalUntil(3));
        EXPECT_TRUE(CloseHandle(step));
        const int done = counted.done;
        EXPECT_EQ(done, counted.begun) << "closed during a step";
        for (int i = 0; i < 20; ++i)
            PulseEvent(signal);
        SetEvent(event);
        EXPECT_EQ(Finish(second), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(counted.done, done);
    }
}

// A waiter that has begun its wait is let through by one set or pulse, however soon the event is reset. With a boolean
// in the event's place most rounds fail.
TEST(EventCampaign, NoRegisteredWaiterMissesASetThatIsResetAtOnce) {
    const int rounds = Rounds(2000, 100000);
    for (const auto& [manual, pulse, name] :
         {std::tuple{TRUE, false, "Signal"}, {TRUE, true, nullptr}, {FALSE, false, "Signal"}}) {
        const Owned event = NewEvent(name, manual);
        const Owned through = NewEvent(nullptr, FALSE);
        std::atomic<int> resets{0}, missed{0};
        DWORD id = 0;
        const auto wait = [&] {
            for (int i = 1; i <= rounds && missed <= 3; SetEvent(through), ++i) {
                missed += Wait(event, 5000) != WAIT_OBJECT_0;
                while (resets != i)
                    Sleep(0);
            }
            return 0;
        };
        const Owned waiter = StartThread(wait, &id);
        for (int i = 1; i <= rounds && missed <= 3; ++i) {
            while (!IsAsleep(id)) // it sleeps nowhere but in the wait
                Sleep(0);
            pulse ? PulseEvent(event) : SetEvent(event) && ResetEvent(event);
            resets = i;
            ASSERT_EQ(Wait(through), DWORD{WAIT_OBJECT_0});
        }
        EXPECT_EQ(Finish(waiter), 0U);
        EXPECT_EQ(missed, 0) << manual << pulse;
    }
}

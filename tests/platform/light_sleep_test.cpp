// Sleeps on one event alone, and what rouses them (oriel_wait.h).
#include "campaign.h"
#include "kit.h"

#include <atomic>
#include <oriel_wait.h>

namespace {

DWORD PositionOf(HANDLE event) {
    DWORD position = 0;
    BOOL isSet = FALSE;
    EXPECT_TRUE(OrielEventPosition(event, &position, &isSet));
    return position;
}

} // namespace

TEST(LightSleep, EndsWithTheEventWhereverItBegan) {
    const Owned event = NewEvent("Lightly");
    const DWORD first = PositionOf(event);
    EXPECT_EQ(OrielSleepFrom(event, first, 0), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(OrielSleepFrom(event, first, 5), DWORD{WAIT_TIMEOUT});
    PulseEvent(event);
    EXPECT_EQ(OrielSleepFrom(event, first, INFINITE), DWORD{WAIT_OBJECT_0}) << "it was pulsed before";
    SetEvent(event);
    EXPECT_EQ(OrielSleepFrom(event, PositionOf(event), INFINITE), DWORD{WAIT_OBJECT_0}) << "it is set";
    ResetEvent(event);
    for (const bool pulses : {true, false}) {
        DWORD id = 0;
        const Owned sleeper =
            StartThread([&, from = PositionOf(event)] { return OrielSleepFrom(event, from, INFINITE); }, &id);
        EXPECT_TRUE(WaitUntil([&] { return IsAsleep(id); }));
        EXPECT_TRUE(pulses ? PulseEvent(event) : SetEvent(event));
        EXPECT_EQ(Finish(sleeper), DWORD{WAIT_OBJECT_0});
    }
}

TEST(LightSleep, IsRefusedWhereItCannotBe) {
    const Owned unnamed = NewEvent();
    const Owned automatic = NewEvent("Automatic", FALSE);
    const Owned mutex = CreateMutexA(nullptr, FALSE, "Mutex");
    const Owned event = NewEvent("Lightly");
    const Owned cannotWait = OpenEventA(EVENT_MODIFY_STATE, FALSE, "Lightly");
    const auto sleep = [](HANDLE object, DWORD position) { return OrielSleepFrom(object, position, 0) != WAIT_FAILED; };
    EXPECT_FAILS(sleep(unnamed, PositionOf(unnamed)), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(sleep(automatic, 0), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(sleep(mutex, 0), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(sleep(event, ORIEL_FROM_NOW), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(sleep(cannotWait, PositionOf(event)), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(sleep(nullptr, 0), ERROR_INVALID_HANDLE);
    EXPECT_FAILS(OrielRouse(event), ERROR_INVALID_HANDLE);
}

// However the rouse meets the sleep: before it, at its beginning, in its midst.
TEST(LightSleep, IsRousedWheneverThatComes) {
    const Owned event = NewEvent("Lightly");
    const DWORD from = PositionOf(event);
    std::atomic<int> roused{0}, asked{0};
    const int rounds = Rounds(2000, 200000);
    const Owned sleeper = StartThread([&] {
        for (; roused < rounds; ++roused) {
            while (roused % 3 == 0 && asked <= roused)
                Sleep(0);
            if (OrielSleepFrom(event, from, INFINITE) != ORIEL_WAIT_ROUSED) return 1;
        }
        return 0;
    });
    // Sleeps on the same event, and is not the one that is meant.
    DWORD otherId = 0;
    const Owned other = StartThread([&] { return OrielSleepFrom(event, from, INFINITE); }, &otherId);
    for (int i = 0; i < rounds; ++i) {
        ++asked;
        ASSERT_TRUE(OrielRouse(sleeper));
        ASSERT_TRUE(WaitUntil([&] { return roused > i; })) << i;
    }
    EXPECT_EQ(Finish(sleeper), 0U);
    EXPECT_TRUE(WaitUntil([&] { return IsAsleep(otherId); }));
    EXPECT_EQ(Look(other), DWORD{WAIT_TIMEOUT});
    PulseEvent(event);
    EXPECT_EQ(Finish(other), DWORD{WAIT_OBJECT_0});
}

// A stop is seen, however fast the event moves.
TEST(LightSleep, IsRousedBeforeTheEventIsLookedAt) {
    const Owned event = NewEvent("Lightly");
    const Owned mayBegin = NewEvent();
    const Owned sleeper = StartThread([&, before = PositionOf(event) - 2] {
        Wait(mayBegin);
        const DWORD first = OrielSleepFrom(event, before, INFINITE);
        return first << 16 | OrielSleepFrom(event, before, INFINITE);
    });
    EXPECT_TRUE(OrielRouse(sleeper));
    EXPECT_TRUE(OrielRouse(sleeper)) << "twice is once";
    SetEvent(mayBegin);
    EXPECT_EQ(Finish(sleeper), DWORD{ORIEL_WAIT_ROUSED << 16 | WAIT_OBJECT_0});
}

// Events, mutexes and waits, over Win32 alone.
#include "kit.h"

namespace {

const char* const kNames[] = {nullptr, "Named"};

} // namespace

TEST(Wait, TakesTheLowestIndexAndConsumesOnlyThat) {
    HANDLE objects[MAXIMUM_WAIT_OBJECTS];
    for (HANDLE& object : objects)
        object = CreateEventA(nullptr, &object == objects, TRUE, nullptr); // the first one manual
    for (const DWORD milliseconds : {DWORD{0}, DWORD{INFINITE}})
        EXPECT_EQ(WaitForMultipleObjects(64, objects, FALSE, milliseconds), DWORD{WAIT_OBJECT_0}) << "it stays set";
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
    const HANDLE unset = NewEvent();
    const HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    const struct {
        std::vector<HANDLE> objects;
        DWORD milliseconds, result, error = kSentinel;
        BOOL all = FALSE;
    } rows[] = {
        {{set}, INFINITE, WAIT_OBJECT_0},
        {{unset, mutex}, INFINITE, WAIT_OBJECT_0 + 1},
        {{unset}, 0, WAIT_TIMEOUT},
        {{unset}, 5, WAIT_TIMEOUT},
        {{}, 0, WAIT_FAILED, ERROR_INVALID_PARAMETER},
        {std::vector<HANDLE>(65, set), 0, WAIT_FAILED, ERROR_INVALID_PARAMETER},
        {{set, nullptr}, 0, WAIT_FAILED, ERROR_INVALID_HANDLE},
        {{set, set}, 0, WAIT_FAILED, ERROR_NOT_SUPPORTED, TRUE},
    };
    for (const auto& row : rows) {
        if (!OnTheLayer() && &row - rows > 6) break; // what the layer refuses
        SetLastError(kSentinel);
        const auto count = static_cast<DWORD>(row.objects.size());
        const DWORD result = WaitForMultipleObjects(count, row.objects.data(), row.all, row.milliseconds);
        EXPECT_EQ(std::pair(result, GetLastError()), std::pair(row.result, row.error)) << &row - rows;
    }
}

TEST(Event, SetResetAndPulseDoWhatTheirKindSays) {
    for (const BOOL manual : {TRUE, FALSE})
        for (const char* name : kNames) {
            const Owned event = CreateEventA(nullptr, manual, TRUE, name);
            for (int twiceIsOnce = 0; twiceIsOnce < 2; ++twiceIsOnce) {
                EXPECT_EQ(Look(event), DWORD{WAIT_OBJECT_0});
                EXPECT_EQ(Look(event), manual ? DWORD{WAIT_OBJECT_0} : DWORD{WAIT_TIMEOUT});
                EXPECT_TRUE(SetEvent(event) && SetEvent(event));
            }
            EXPECT_TRUE(ResetEvent(event) && ResetEvent(event));
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
            EXPECT_TRUE(!manual || PulseEvent(event)); // nobody waits
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
            EXPECT_TRUE(!manual || (SetEvent(event) && PulseEvent(event))); // clears it
            EXPECT_EQ(Look(event), DWORD{WAIT_TIMEOUT});
            if (manual || !OnTheLayer()) continue;
            EXPECT_FAILS(PulseEvent(event), ERROR_NOT_SUPPORTED);
        }
}

TEST(Mutex, IsReleasedAsOftenAsItWasTaken) {
    for (const char* name : kNames) {
        const Owned mutex = CreateMutexA(nullptr, TRUE, name);
        const auto elsewhere = [&] { return OnAThread([&] { return Look(mutex); }); };
        for (int i = 0; i < 31; ++i)
            ASSERT_EQ(WaitForSingleObject(mutex, i % 2 != 0 ? 0 : INFINITE), DWORD{WAIT_OBJECT_0});
        for (int i = 0; i < 32; ++i) {
            EXPECT_EQ(elsewhere(), DWORD{WAIT_TIMEOUT});
            EXPECT_TRUE(ReleaseMutex(mutex));
        }
        EXPECT_FAILS(ReleaseMutex(mutex), ERROR_NOT_OWNER);
        EXPECT_EQ(elsewhere(), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(Look(mutex), DWORD{WAIT_ABANDONED}) << "its thread has ended";
        EXPECT_EQ(OnAThread([&] { return Code(ReleaseMutex(mutex)); }), DWORD{ERROR_NOT_OWNER}) << "a stranger";
        if (!name) continue;
        EXPECT_EQ(OnAThread([&]() -> DWORD {
                      const Owned known = CreateMutexA(nullptr, TRUE, name); // and so not owned by its thread
                      return GetLastError() != ERROR_ALREADY_EXISTS || ReleaseMutex(known) ? 1 : Wait(known, 60);
                  }),
                  DWORD{WAIT_TIMEOUT});
    }
}

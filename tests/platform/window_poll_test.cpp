// Descriptors for event loops. Linux only, like the calls themselves.
#include "kit.h"

#include <oriel_poll.h>

#include <poll.h>

namespace {

bool Readable(int descriptor, int timeoutMs = 0) {
    pollfd state{descriptor, POLLIN, 0};
    return poll(&state, 1, timeoutMs) == 1 && state.revents == POLLIN;
}

} // namespace

TEST(EventDescriptor, FollowsEventsOfBothKindsInABoundedNumber) {
    const HANDLE manual = NewEvent("Manual"), automatic = CreateEventA(nullptr, FALSE, TRUE, nullptr);
    const int first = OrielEventDescriptor(manual), second = OrielEventDescriptor(automatic);
    EXPECT_TRUE(Readable(second, 10000) && !Readable(first));
    EXPECT_EQ(Look(automatic), DWORD{WAIT_TIMEOUT}) << "taken, as a waiter takes it";
    EXPECT_TRUE(OrielRearmEventDescriptor(second) && !Readable(second));
    EXPECT_TRUE(SetEvent(automatic) && Readable(second, 10000));
    EXPECT_TRUE(SetEvent(manual) && Readable(first, 10000));
    EXPECT_TRUE(OrielRearmEventDescriptor(first) && Readable(first, 10000)) << "still set";
    EXPECT_TRUE(ResetEvent(manual) && Readable(first)) << "until it is re-armed";
    EXPECT_TRUE(OrielRearmEventDescriptor(first) && !Readable(first));
    for (int count = 2; count < ORIEL_MAX_EVENT_DESCRIPTORS; ++count)
        EXPECT_NE(OrielEventDescriptor(manual), -1);
    EXPECT_FAILS(OrielEventDescriptor(manual) != -1, ERROR_NOT_ENOUGH_QUOTA);
    // It watches on when the caller's own handle is closed.
    CloseHandle(manual);
    EXPECT_TRUE(SetEvent(Owned(OpenEventA(EVENT_MODIFY_STATE, FALSE, "Manual"))) && Readable(first, 10000));
    EXPECT_TRUE(OrielCloseEventDescriptor(first) && OrielCloseEventDescriptor(second));
    EXPECT_FAILS(OrielCloseEventDescriptor(first), ERROR_INVALID_HANDLE);
    EXPECT_FAILS(OrielRearmEventDescriptor(first), ERROR_INVALID_HANDLE);
    EXPECT_NE(OrielEventDescriptor(automatic), -1) << "there is room again";
    EXPECT_FAILS(OrielEventDescriptor(Owned(CreateMutexA(nullptr, FALSE, nullptr))) != -1, ERROR_INVALID_HANDLE);
}

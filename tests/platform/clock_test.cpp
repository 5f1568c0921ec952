// The machine's clock is set while the layer is in use. What is set here is what this process is told of it.
#include "kit.h"

#include <atomic>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

static std::atomic<int64_t> g_setBySeconds{0};

// In place of the C library's, for the layer too.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, time);
    if (clock == CLOCK_REALTIME) time->tv_sec += g_setBySeconds;
    return static_cast<int>(result);
}

TEST(Clock, ThatIsSetChangesTheTimeOfDayAndNoWait) {
    constexpr DWORD kWaitMs = 30;
    const Owned mutex = CreateMutexA(nullptr, TRUE, "Owned");
    const HANDLE both[] = {NewEvent(), NewEvent("Never")};
    const auto seconds = [] {
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        return static_cast<double>(uint64_t{now.dwHighDateTime} << 32 | now.dwLowDateTime) / 1e7;
    };
    const std::function<void()> waits[] = {
        [&] { EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, kWaitMs), DWORD{WAIT_TIMEOUT}); },
        [&] { EXPECT_EQ(OnAThread([&] { return Wait(mutex, kWaitMs); }), DWORD{WAIT_TIMEOUT}); },
        [&] { Sleep(kWaitMs); },
    };
    for (const int by : {-3600, 3600}) {
        const double day = seconds();
        const DWORD ticks = GetTickCount();
        g_setBySeconds += by;
        EXPECT_NEAR(seconds() - day, by, 60);
        EXPECT_LT(GetTickCount() - ticks, 60'000U);
        for (const auto& wait : waits) {
            const double begin = NowMs();
            wait();
            EXPECT_GE(NowMs() - begin, kWaitMs - 1.0) << &wait - waits;
            EXPECT_LT(NowMs() - begin, 5000) << &wait - waits;
        }
    }
}

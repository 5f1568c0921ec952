// The machine's clock is set while the layer is in use. What is set here is what this process is told of it.
#include "test_process.h"
#include "win32_kit.h"

#include <atomic>
#include <ctime>
#include <functional>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<int64_t> g_setBySeconds{0};

int64_t SecondsOfDay() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return static_cast<int64_t>(uint64_t{now.dwHighDateTime} << 32 | now.dwLowDateTime) / 10'000'000;
}

} // namespace

// In place of the C library's, for the layer too.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, time);
    if (clock == CLOCK_REALTIME) time->tv_sec += g_setBySeconds;
    return static_cast<int>(result);
}

TEST(Clock, ThatIsSetChangesTheTimeOfDayAndNoWait) {
    constexpr int64_t kHour = 3600;
    constexpr DWORD kWaitMs = 30;
    const Owned never = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const Owned named = CreateEventA(nullptr, TRUE, FALSE, "Never");
    const Owned mutex = CreateMutexA(nullptr, TRUE, "Owned");
    const HANDLE both[] = {never, named};
    const std::function<void()> waits[] = {
        [&] { EXPECT_EQ(Wait(never, kWaitMs), DWORD{WAIT_TIMEOUT}); },
        [&] { EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, kWaitMs), DWORD{WAIT_TIMEOUT}); },
        [&] { EXPECT_EQ(OnAThread([&] { return Wait(mutex, kWaitMs); }), DWORD{WAIT_TIMEOUT}); },
        [&] { Sleep(kWaitMs); },
    };
    for (const int64_t by : {-kHour, kHour}) {
        SCOPED_TRACE(by);
        const int64_t day = SecondsOfDay();
        const DWORD ticks = GetTickCount();
        g_setBySeconds += by;
        EXPECT_NEAR(static_cast<double>(SecondsOfDay() - day), static_cast<double>(by), 60);
        EXPECT_LT(GetTickCount() - ticks, 60'000U);
        for (const auto& wait : waits) {
            const double begin = NowMs();
            wait();
            EXPECT_GE(NowMs() - begin, kWaitMs - 1.0) << &wait - waits;
            EXPECT_LT(NowMs() - begin, 5000) << &wait - waits;
        }
    }
}

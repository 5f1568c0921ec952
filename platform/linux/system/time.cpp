// The time of day as FILETIME and SYSTEMTIME. No state.
#include "base/call.h"

#include <chrono>
#include <sysinfoapi.h>

namespace oriel {
namespace {

namespace chrono = std::chrono;
using Ticks = chrono::duration<uint64_t, std::ratio<1, 10'000'000>>; // of a FILETIME: 100 ns

constexpr chrono::sys_days kEpoch = chrono::year(1601) / 1 / 1;
// From 1601-01-01 to 1970-01-01.
constexpr Ticks kEpochToUnix = chrono::duration_cast<Ticks>(chrono::sys_days{} - kEpoch);
static_assert(kEpochToUnix.count() == 116'444'736'000'000'000);
constexpr int kFirstYear = 1601;
constexpr int kLastYear = 30827; // the last one whose FILETIMEs are below 2^63

FILETIME FileTimeOf(Ticks ticks) {
    return {static_cast<DWORD>(ticks.count()), static_cast<DWORD>(ticks.count() >> 32)};
}

Ticks Now() {
    const auto sinceUnix = chrono::system_clock::now().time_since_epoch();
    return Ticks(static_cast<uint64_t>(chrono::duration_cast<chrono::nanoseconds>(sinceUnix).count() / 100)) +
           kEpochToUnix;
}

SYSTEMTIME SystemTimeOf(Ticks ticks) {
    using Days = chrono::duration<uint64_t, chrono::days::period>;
    const auto days = chrono::duration_cast<Days>(ticks);
    const chrono::sys_days day = kEpoch + chrono::days(days.count());
    const chrono::year_month_day date(day);
    const chrono::hh_mm_ss time(chrono::duration_cast<chrono::milliseconds>(ticks - days));
    SYSTEMTIME result;
    result.wYear = static_cast<WORD>(static_cast<int>(date.year()));
    result.wMonth = static_cast<WORD>(static_cast<unsigned>(date.month()));
    result.wDayOfWeek = static_cast<WORD>(chrono::weekday(day).c_encoding());
    result.wDay = static_cast<WORD>(static_cast<unsigned>(date.day()));
    result.wHour = static_cast<WORD>(time.hours().count());
    result.wMinute = static_cast<WORD>(time.minutes().count());
    result.wSecond = static_cast<WORD>(time.seconds().count());
    result.wMilliseconds = static_cast<WORD>(time.subseconds().count());
    return result;
}

} // namespace
} // namespace oriel

using namespace oriel;

void WINAPI GetSystemTimeAsFileTime(LPFILETIME systemTimeAsFileTime) {
    *systemTimeAsFileTime = FileTimeOf(Now());
}

void WINAPI GetSystemTime(LPSYSTEMTIME systemTime) {
    *systemTime = SystemTimeOf(Now());
}

BOOL WINAPI FileTimeToSystemTime(const FILETIME* fileTime, LPSYSTEMTIME systemTime) {
    if (fileTime == nullptr || systemTime == nullptr || fileTime->dwHighDateTime > 0x7FFFFFFF)
        return Fail(ERROR_INVALID_PARAMETER);
    const Ticks ticks(static_cast<uint64_t>(fileTime->dwHighDateTime) << 32 | fileTime->dwLowDateTime);
    *systemTime = SystemTimeOf(ticks);
    return TRUE;
}

BOOL WINAPI SystemTimeToFileTime(const SYSTEMTIME* systemTime, LPFILETIME fileTime) {
    if (systemTime == nullptr || fileTime == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    const SYSTEMTIME& time = *systemTime;
    if (time.wYear < kFirstYear || time.wYear > kLastYear) return Fail(ERROR_INVALID_PARAMETER);
    if (time.wHour > 23 || time.wMinute > 59 || time.wSecond > 59 || time.wMilliseconds > 999)
        return Fail(ERROR_INVALID_PARAMETER);
    const chrono::year_month_day date(chrono::year(time.wYear), chrono::month(time.wMonth), chrono::day(time.wDay));
    if (!date.ok()) return Fail(ERROR_INVALID_PARAMETER);
    const auto days = chrono::sys_days(date) - kEpoch;
    *fileTime =
        FileTimeOf(chrono::duration_cast<Ticks>(days) + chrono::hours(time.wHour) + chrono::minutes(time.wMinute) +
                   chrono::seconds(time.wSecond) + chrono::milliseconds(time.wMilliseconds));
    return TRUE;
}

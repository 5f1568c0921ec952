#include "model/times.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace views {

namespace {

constexpr int64_t kDayMs = 24 * 3600 * 1000LL;

// The years are four digits.
int64_t Bounded(int64_t ms) {
    constexpr int64_t kLast = 253402300799999; // 9999-12-31
    return std::clamp<int64_t>(ms, 0, kLast);
}

} // namespace

std::string DayText(int64_t ms) {
    const std::chrono::year_month_day date{std::chrono::sys_days{std::chrono::days{Bounded(ms) / kDayMs}}};
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
    return text;
}

std::string TimeText(int64_t ms) {
    const int64_t inDay = Bounded(ms) % kDayMs;
    char text[32];
    std::snprintf(text, sizeof text, "T%02d:%02d:%02d.%03dZ", static_cast<int>(inDay / 3600000),
                  static_cast<int>(inDay / 60000 % 60), static_cast<int>(inDay / 1000 % 60),
                  static_cast<int>(inDay % 1000));
    return DayText(ms) + text;
}

std::string UtcText(int64_t ms) {
    return ms <= 0 ? "" : TimeText(ms);
}

} // namespace views

// Times as text, UTC: of milliseconds since 1970, which a journal or another machine may have told. No state.
#pragma once

#include <cstdint>
#include <string>

namespace views {

// "2026-11-24T08:15:00.123Z"; "2026-11-24". Between 1970 and 9999, whatever the number.
std::string TimeText(int64_t ms);
std::string DayText(int64_t ms);
// The same as TimeText; empty for 0, which says that there is no time.
std::string UtcText(int64_t ms);

} // namespace views

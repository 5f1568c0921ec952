// How long conditions last, without a clock.
#include "conditions.h"

#include <gtest/gtest.h>

namespace {

constexpr product::Named kJam = {2, "paper jam", product::Severity::Error};

// Looks at a condition every second; whether it was there is one letter for each look. The looks at which it was to be
// shown, as letters.
std::string Shown(const std::string& looks) {
    Conditions conditions;
    std::string shown;
    DWORD now = 0xFFFFFFFF - 2500; // the clock wraps
    for (const char look : looks) {
        if (look == 'x') SeeCondition(conditions, kJam, now);
        const bool show = SettleConditions(conditions, now);
        if (show) conditions.at(kJam.words).shown = true;
        shown += show ? '!' : conditions.empty() ? ' ' : '.';
        now += 1000;
    }
    return shown;
}

} // namespace

TEST(AlertConditions, LastBeforeTheyAreShownAndAreShownOnceHoweverTheyFlap) {
    const std::pair<const char*, const char*> looks[] = {
        {"xxxxxxxx", "...!...."},                                     // lasts
        {"x......x", "...... ."},                                     // is over, and another one
        {"xx..........", ".......     "},                             // too short to be shown
        {"x.x.x.x.x.x", "....!......"},                               // flaps
        {"xxxx.....x.....x......xxxx", "...!................. ...!"}, // stays the same one while it is absent for 5 s
    };
    for (const auto& [there, shown] : looks)
        EXPECT_EQ(Shown(there), shown) << there;
}

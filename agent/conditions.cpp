// No state.
#include "conditions.h"

#include <algorithm>

void SeeCondition(Conditions& conditions, const product::Named& named, DWORD now) {
    Condition& condition = conditions.try_emplace(named.words, Condition{.firstSeen = now}).first->second;
    condition.lastSeen = now;
    condition.severity = named.severity;
}

bool SettleConditions(Conditions& conditions, DWORD now) {
    std::erase_if(conditions, [&](const auto& row) { return now - row.second.lastSeen >= kAbsentMs; });
    // What is shown must be there at that moment, so that a short condition is never shown.
    return std::any_of(conditions.begin(), conditions.end(), [&](const auto& row) {
        return !row.second.shown && row.second.lastSeen == now && HasLasted(row.second, now);
    });
}

bool HasLasted(const Condition& condition, DWORD now) {
    return condition.shown || now - condition.firstSeen >= kLastsMs;
}

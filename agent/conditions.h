// What a printer needs from a person, and how long it has lasted. Times are GetTickCount's, which wrap. No state.
#pragma once

#include "product/meanings.h"

#include <windows.h>

#include <map>
#include <string>

inline constexpr DWORD kLastsMs = 3000;  // a condition that has not lasted is not shown
inline constexpr DWORD kAbsentMs = 6000; // one that was absent for a shorter time has lasted all the while

struct Condition {
    DWORD firstSeen = 0;
    DWORD lastSeen = 0;
    product::Severity severity = product::Severity::None;
    bool shown = false;
};
using Conditions = std::map<std::string, Condition>; // by their words

void SeeCondition(Conditions& conditions, const product::Named& named, DWORD now);
// After all that is there now was seen: forgets what is over. True when there is something to show that was not shown.
bool SettleConditions(Conditions& conditions, DWORD now);
// Of the conditions that remain: those that are shown together now.
bool HasLasted(const Condition& condition, DWORD now);

// Settings of the product: values of its registry key that people change. A row for each, with its bounds and what it
// does. No state.
#pragma once

#include "base/text.h"

#include <windows.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

struct Setting {
    const char* name;
    const char* what;  // for people; says when a change counts
    DWORD least = 0;   // of a number
    DWORD most = 0;    // 0: it is a list of texts
    DWORD initial = 0; // without a value
};
std::span<const Setting> Settings();
// Null: there is no such setting. Names are compared as the registry does.
const Setting* FindSetting(const std::string& name);

namespace settings {

inline constexpr char kViews[] = "Views";
inline constexpr char kHistoryDays[] = "HistoryDays";
inline constexpr char kHistoryMegabytes[] = "HistoryMegabytes";

} // namespace settings

// The number of a setting of this name: the nearest within its bounds; its initial one when there is no value, or one
// of another type.
DWORD ReadNumberSetting(const char* name);
// Texts: ANSI. Empty when there is no value, or one of another type.
std::vector<std::string> ReadListSetting(const char* name);
bool HasValue(const Setting& setting);

// Each throws Failure.
void WriteNumberSetting(const Setting& setting, DWORD number);
void WriteListSetting(const Setting& setting, const std::vector<std::string>& texts);
void RemoveSetting(const Setting& setting);

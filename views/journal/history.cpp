//   1 times   2 entries   3 states
// No state.
#include "journal/history.h"

#include "base/failure.h"
#include "base/text.h"

#include "model/times.h"

#include "product/meanings.h"
#include "product/variable_names.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace views {

namespace {

constexpr int64_t kDayMs = 24 * 3600 * 1000LL;
constexpr char kNotRecorded[] = "not recorded";

using Days = std::chrono::sys_days;

} // namespace

// ---- 1 times

namespace {

std::optional<int64_t> ParseAgo(const std::string& text) {
    constexpr struct {
        const char* unit;
        int64_t ms;
    } kUnits[] = {{"s", 1000}, {"min", 60000}, {"m", 60000}, {"h", 3600000}, {"d", kDayMs}};
    const size_t end = text.find_first_not_of("0123456789");
    if (end == 0 || end == std::string::npos || end > 9) return std::nullopt;
    for (const auto& each : kUnits)
        if (text.substr(end) == each.unit) return std::stoll(text.substr(0, end)) * each.ms;
    return std::nullopt;
}

std::optional<int64_t> ParseTime(const std::string& text) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, ms = 0, end = 0;
    const char* const start = text.c_str();
    if (std::sscanf(start, "%4d-%2d-%2d%n", &year, &month, &day, &end) != 3) return std::nullopt;
    if (start[end] != '\0') {
        int more = 0;
        if (std::sscanf(start + end, "%*1[T ]%2d:%2d%n", &hour, &minute, &more) != 2) return std::nullopt;
        end += more;
        more = 0;
        if (std::sscanf(start + end, ":%2d%n", &second, &more) == 1) end += more;
        more = 0;
        if (std::sscanf(start + end, ".%3d%n", &ms, &more) == 1) end += more;
        if (start[end] == 'Z') ++end;
    }
    const std::chrono::year_month_day date{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                                           std::chrono::day{static_cast<unsigned>(day)}};
    const auto within = [](int number, int most) { return number >= 0 && number <= most; };
    if (start[end] != '\0' || !date.ok() || !within(hour, 23) || !within(minute, 59) || !within(second, 59) || ms < 0)
        return std::nullopt;
    return Days{date}.time_since_epoch().count() * kDayMs + hour * 3600000LL + minute * 60000LL + second * 1000LL + ms;
}

} // namespace

int64_t ParseSince(const std::string& text, int64_t now) {
    if (const std::optional<int64_t> ago = ParseAgo(text)) return now - *ago;
    if (const std::optional<int64_t> time = ParseTime(text)) return *time;
    throw UsageFailure("\"" + text + "\" is no time",
                       "give how long ago (90s, 30min, 2h, 7d) or a time in UTC (2026-11-24, 2026-11-24T08:15)");
}

// ---- 2 entries

namespace {

std::string ValueLine(const Entry& entry) {
    std::string line = entry.printer + "  " + entry.variable + ": " +
                       (entry.before.known ? entry.before.text : "none") + " -> " + entry.after.text;
    if (!entry.meaning.empty()) line += "; " + entry.meaning;
    if (entry.missed != 0) line += " (" + std::to_string(entry.missed) + " more in between)";
    return line;
}

Json JsonOf(const StoredValue& value) {
    return value.known && !value.json.empty() ? Json::parse(value.json, nullptr, false) : Json(nullptr);
}

} // namespace

std::string EntryText(const Entry& entry) {
    switch (entry.told) {
    case Told::Value:
        return ValueLine(entry);
    case Told::Present:
        return entry.printer + "  " + entry.variable + ": " + entry.after.text;
    case Told::Added:
        return entry.printer + "  was added, or is there";
    case Told::Removed:
        return entry.printer + "  was removed";
    case Told::Stale:
        return entry.printer + "  is stale: " + entry.meaning;
    case Told::Fresh:
        return entry.printer + "  is up to date again";
    case Told::Gap:
        if (!entry.variable.empty())
            return entry.printer + "  " + entry.variable + ": " + std::to_string(entry.missed) +
                   " changes were not recorded since " + TimeText(entry.sinceMs) + ", because there were too many";
        return entry.sinceMs != 0 ? "gap: nothing was recorded since " + TimeText(entry.sinceMs)
                                  : "gap: what happened in between was not recorded";
    case Told::Connected:
        return "the status database service is there";
    case Told::Disconnected:
        return "the status database service is gone";
    }
    return {};
}

Json EntryJson(const Entry& entry) {
    const bool change = entry.told == Told::Value;
    Json json = {{"event", change ? "change" : NameOf(entry.told)}, {"time", TimeText(entry.atMs)}};
    if (entry.told == Told::Gap) json["since"] = entry.sinceMs != 0 ? Json(TimeText(entry.sinceMs)) : Json(nullptr);
    if (entry.printer.empty()) return json;
    json["printer"] = entry.printer;
    if (entry.told == Told::Gap) {
        json["name"] = entry.variable;
        json["missed"] = entry.missed;
    }
    if (entry.told == Told::Stale) json["why"] = entry.meaning;
    if (!entry.after.known) return json;
    json["name"] = entry.variable;
    if (change) json["old"] = JsonOf(entry.before);
    json["value"] = JsonOf(entry.after);
    json["hex"] = ToHex(entry.after.bytes.data(), entry.after.bytes.size());
    json["text"] = entry.after.text;
    json["meaning"] = entry.meaning;
    json["severity"] = product::NameOf(entry.severity);
    json["from"] = entry.origin;
    if (change) json["missed"] = entry.missed;
    return json;
}

// ---- 3 states

namespace {

uint32_t FirstWord(const StoredValue& value) {
    uint32_t word = 0;
    if (value.bytes.size() >= sizeof word) std::memcpy(&word, value.bytes.data(), sizeof word);
    return word;
}

// The words of the most severe bit of "PrinterStatus".
std::string StateOf(const StoredValue& value) {
    const product::VariableMeaning& meaning = *product::MeaningOf(names::kPrinterStatus);
    const uint32_t bits = FirstWord(value);
    const product::Named* worst = nullptr;
    for (const product::Named& bit : meaning.words[0].bits)
        if ((bits & bit.value) != 0 && (worst == nullptr || bit.severity > worst->severity)) worst = &bit;
    return worst != nullptr ? worst->words : meaning.none;
}

bool IsJam(const StoredValue& value) {
    constexpr uint32_t kUnknown = UINT32_MAX;
    const uint32_t jam = FirstWord(value);
    return value.known && jam != 0 && jam != kUnknown;
}

} // namespace

void StateCounter::Count(const std::string& printer, const std::string& state, int64_t from, int64_t to) {
    for (from = std::max(from, m_since); from < to;) {
        const int64_t end = std::min(to, (from / kDayMs + 1) * kDayMs);
        m_states[{DayText(from), printer}].ms[state] += end - from;
        from = end;
    }
}

// An empty state: it is not known from then on.
void StateCounter::Enter(const std::string& printer, const std::string& state, int64_t at) {
    Present& present = m_present[printer];
    if (!present.state.empty()) Count(printer, present.state, present.since, at);
    present = {state, std::max(at, present.since)};
}

void StateCounter::Take(const Entry& entry) {
    if (entry.told == Told::Gap && entry.printer.empty()) {
        const std::map<std::string, Present> presents = m_present;
        for (const auto& [printer, present] : presents) {
            if (present.state.empty()) continue;
            Enter(printer, kNotRecorded, entry.sinceMs != 0 ? entry.sinceMs : entry.atMs);
            Enter(printer, present.state, entry.atMs); // unless another value follows
        }
    } else if (entry.told == Told::Removed) {
        Enter(entry.printer, "", entry.atMs);
    } else if (entry.variable == names::kPrinterStatus && entry.after.known) {
        const auto present = m_present.find(entry.printer);
        const std::string state = StateOf(entry.after);
        if (present == m_present.end() || present->second.state != state) Enter(entry.printer, state, entry.atMs);
    } else if (entry.variable == names::kErrPaperJam && entry.told == Told::Value && entry.atMs >= m_since) {
        if (!IsJam(entry.before) && IsJam(entry.after)) ++m_states[{DayText(entry.atMs), entry.printer}].jams;
    }
}

States StateCounter::End(int64_t recordedUntil) {
    const std::map<std::string, Present> presents = m_present;
    for (const auto& [printer, present] : presents)
        Enter(printer, "", recordedUntil);
    return std::move(m_states);
}

} // namespace views

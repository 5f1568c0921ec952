// Summaries, and their JSON. No state.
#include "model/summary.h"

#include "model/times.h"

#include "base/text.h"

#include "product/variable_names.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace views {

namespace {

using product::Severity;

// A printer tells of more than anyone looks at.
constexpr size_t kSuppliesMost = 32;
constexpr size_t kJobsMost = 200;
constexpr int kLowPercent = 10;

const Value* Find(const Printer& printer, const char* variable) {
    const auto found = printer.values.find(variable);
    return found == printer.values.end() ? nullptr : &found->second;
}

// ---- state

// The state and its cause, then what else is wrong.
constexpr const char* kStates[] = {names::kPrinterStatus,     names::kPrinterStatus2,    names::kErrPaperJam,
                                   names::kErrNoPaper,        names::kErrPaperState,     names::kErrCoverOpen,
                                   names::kErrPaperSizeError, names::kErrFormRegistError};

// They say that something is wrong; what follows them says what.
constexpr std::string_view kGeneral[] = {"stopped by an error", "needs attention soon"};

using Words = std::vector<std::string>;

void AddState(const Value& value, bool isMain, Summary& summary, Words& words) {
    summary.changedMs = std::max(summary.changedMs, value.writtenMs);
    if (!isMain && value.severity < Severity::Warning) return;
    summary.severity = std::max(summary.severity, value.severity);
    for (size_t at = 0; at < value.meaning.size();) {
        const size_t end = std::min(value.meaning.find(", ", at), value.meaning.size());
        std::string word = Printable(std::string_view(value.meaning).substr(at, end - at));
        // "PrinterStatus" names the first cause, the others repeat it.
        if (!word.empty() && std::find(words.begin(), words.end(), word) == words.end())
            words.push_back(std::move(word));
        at = end + 2;
    }
}

void AddStates(const Printer& printer, Summary& summary) {
    Words words;
    for (const char* name : kStates)
        if (const Value* value = Find(printer, name)) AddState(*value, name == kStates[0], summary, words);
    const auto isGeneral = [](const std::string& word) {
        return std::find(std::begin(kGeneral), std::end(kGeneral), word) != std::end(kGeneral);
    };
    for (auto word = words.begin(); word != words.end(); ++word) {
        if (isGeneral(*word) && !std::all_of(word, words.end(), isGeneral)) continue;
        summary.state += (summary.state.empty() ? "" : ", ") + *word;
    }
    if (summary.state.empty()) summary.state = "not known";
}

// ---- supplies

// Variables of models: a number in percent whose name ends like this.
constexpr std::string_view kLevel = "Level";

void AddLevels(const Printer& printer, Summary& summary) {
    for (const auto& [name, value] : printer.values) {
        if (summary.supplies.size() == kSuppliesMost) return;
        if (!name.ends_with(kLevel) || name.size() == kLevel.size()) continue;
        Supply supply{.name = Printable(name.substr(0, name.size() - kLevel.size()))};
        if (value.json.is_number_unsigned() && value.json.get<uint64_t>() <= 100) {
            supply.percent = value.json.get<int>();
            supply.low = supply.percent <= kLowPercent;
        } else if (!value.json.is_null()) {
            continue; // no percentage
        }
        summary.supplies.push_back(std::move(supply));
    }
}

// An entry of "PrinterBinConfig".
struct Tray {
    uint16_t id, sameId, paper;
    uint8_t present, filling; // 1 empty, 2 has paper
    uint32_t sheets;
};
static_assert(sizeof(Tray) == 12);

void AddTrays(const Printer& printer, Summary& summary) {
    const Value* value = Find(printer, names::kPrinterBinConfig);
    uint32_t count = 0;
    if (!value || value->bytes.size() < sizeof count) return;
    std::memcpy(&count, value->bytes.data(), sizeof count);
    for (size_t i = 0, at = sizeof count; i < count && at + sizeof(Tray) <= value->bytes.size(); ++i) {
        Tray tray;
        std::memcpy(&tray, value->bytes.data() + at, sizeof tray);
        at += sizeof tray;
        // A tray of which nothing is known says nothing.
        if (tray.filling != 1 || summary.supplies.size() == kSuppliesMost) continue;
        summary.supplies.push_back({.name = "tray " + std::to_string(i + 1), .percent = 0, .low = true});
    }
}

// ---- jobs

std::string TextOf(const Json& record, const char* field) {
    const auto found = record.find(field);
    return found != record.end() && found->is_string() ? Printable(found->get<std::string>()) : "";
}

uint32_t IdOf(const Json& record) {
    const auto found = record.find("jobId");
    const bool isId = found != record.end() && found->is_number_unsigned() && found->get<uint64_t>() <= UINT32_MAX;
    return isId ? found->get<uint32_t>() : 0;
}

// A job that both queues have is in the printer.
void AddJob(const Json& record, const char* state, Summary& summary) {
    if (!record.is_object() || summary.jobs.size() == kJobsMost) return;
    Job job{IdOf(record), TextOf(record, "jobName"), TextOf(record, "ownerName"), state};
    if (job.id == 0) return;
    const auto same = [&](const Job& each) { return each.id == job.id && each.title == job.title; };
    if (std::none_of(summary.jobs.begin(), summary.jobs.end(), same)) summary.jobs.push_back(std::move(job));
}

void AddJobs(const Printer& printer, Summary& summary) {
    static constexpr struct {
        const char* variable;
        const char* state;
    } kSources[] = {{names::kPrintingJobInfo, "printing"},
                    {names::kSendingJobInfo, "sending"},
                    {names::kPrinterQueue, "in the printer"},
                    {names::kSpoolerQueue, "waiting"}};
    for (const auto& source : kSources) {
        const Value* value = Find(printer, source.variable);
        if (!value) continue;
        if (value->json.is_array())
            for (const Json& record : value->json)
                AddJob(record, source.state, summary);
        else
            AddJob(value->json, source.state, summary);
    }
}

} // namespace

std::span<const char* const> StateVariables() {
    return kStates;
}

Summary SummaryOf(const Printer& printer) {
    Summary summary;
    AddStates(printer, summary);
    if (printer.stale) summary.severity = std::max(summary.severity, Severity::Warning);
    AddLevels(printer, summary);
    AddTrays(printer, summary);
    for (const Supply& supply : summary.supplies)
        if (supply.low) summary.severity = std::max(summary.severity, Severity::Warning);
    AddJobs(printer, summary);
    if (const Value* panel = Find(printer, names::kPrinterDisplay2)) summary.panel = Printable(panel->meaning);
    if (const Value* pages = Find(printer, names::kPageCount); pages && pages->json.is_number_unsigned())
        summary.pages = pages->json.get<uint32_t>();
    return summary;
}

// ---- JSON

Json SummaryJson(const Printer& printer, const Summary& summary) {
    Json json{{"machine", printer.machine},
              {"name", printer.name},
              {"driver", printer.driver},
              {"device", printer.device},
              {"state", summary.state},
              {"severity", product::NameOf(summary.severity)},
              {"stale", printer.stale},
              {"trouble", printer.trouble},
              {"changed", UtcText(summary.changedMs)},
              {"panel", summary.panel},
              {"pages", summary.pages ? Json(*summary.pages) : Json(nullptr)},
              {"supplies", Json::array()},
              {"jobs", Json::array()}};
    for (const Supply& supply : summary.supplies)
        json["supplies"].push_back({{"name", supply.name},
                                    {"percent", supply.percent < 0 ? Json(nullptr) : Json(supply.percent)},
                                    {"low", supply.low}});
    for (const Job& job : summary.jobs)
        json["jobs"].push_back({{"id", job.id}, {"title", job.title}, {"owner", job.owner}, {"state", job.state}});
    return json;
}

Json PrinterJson(const Printer& printer) {
    Json json = SummaryJson(printer, SummaryOf(printer));
    Json values = Json::object();
    for (const auto& [name, value] : printer.values)
        values[name] = {{"value", value.json},
                        {"text", value.text},
                        {"meaning", value.meaning},
                        {"severity", product::NameOf(value.severity)},
                        {"from", value.origin},
                        {"writes", value.writes},
                        {"written", UtcText(value.writtenMs)}};
    json["answered"] = UtcText(printer.answeredMs);
    json["values"] = std::move(values);
    return json;
}

} // namespace views

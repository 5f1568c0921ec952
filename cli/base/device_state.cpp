// No state.
#include "base/device_state.h"

#include "base/product.h"
#include "base/text.h"

#include "product/file_times.h"
#include "product/guards.h"
#include "product/program_client.h"

#include <algorithm>
#include <cstring>

namespace {

// Longer than a watcher's own pauses.
constexpr uint64_t kOverdueMarginMs = 2000;
constexpr uint64_t kTicksPerMs = 10000; // of FILETIME

struct Binding {
    Binding() : made(BindStatusDatabase()) {}
    ~Binding() {
        if (made) UnbindStatusDatabase();
    }
    bool made;
};

uint64_t NowAsFileTime() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return product::ToTime(now);
}

// 0 for a time to come: the clock may have been set back.
uint64_t SinceMs(uint64_t fileTime) {
    const uint64_t now = NowAsFileTime();
    return now > fileTime ? (now - fileTime) / kTicksPerMs : 0;
}

template <size_t size>
std::string FieldText(const char (&field)[size]) {
    return Printable(ToUtf8(std::string(field, std::find(field, field + size, '\0'))));
}

} // namespace

namespace {

// Empty without a service, without a database of the printer, or without such a variable.
std::vector<BYTE> ReadStored(const std::string& printer, const char* variable) {
    if (!ProductInitialised()) return {};
    const Binding binding;
    std::string name;
    if (!binding.made || FindPrinterDatabase(printer, &name) != Answer::Done || name.empty()) return {};
    Guard<DatabaseHandle, &CloseDatabase> database;
    if (OpenDatabase(name.c_str(), database.Receive()) != Answer::Done) return {};
    std::vector<BYTE> value;
    return ReadWholeValue(database.Get(), variable, &value) == Answer::Done ? value : std::vector<BYTE>();
}

Json NumberOrNull(int32_t number) {
    return number < 0 ? Json(nullptr) : Json(number);
}

OwnValue SuppliesIn(const std::vector<BYTE>& value) {
    constexpr size_t kHeader = 2 * sizeof(uint32_t);
    OwnValue own{.json = Json::array()};
    for (size_t at = kHeader; at + sizeof(SupplyRecord) <= value.size(); at += sizeof(SupplyRecord)) {
        SupplyRecord record;
        std::memcpy(&record, &value[at], sizeof record);
        const std::string name = FieldText(record.name), colour = FieldText(record.colour),
                          unit = FieldText(record.unit);
        own.json.push_back({{"name", name},
                            {"kind", FieldText(record.kind)},
                            {"colour", colour},
                            {"percent", NumberOrNull(record.percent)},
                            {"level", NumberOrNull(record.level)},
                            {"capacity", NumberOrNull(record.capacity)},
                            {"unit", unit}});
        const std::string level = record.percent >= 0 ? std::to_string(record.percent) + " %"
                                  : record.level >= 0 ? std::to_string(record.level) + " " + unit
                                                      : "not known";
        own.text += (own.text.empty() ? "" : "\n") + name + (colour.empty() ? "" : " (" + colour + ")") + ": " + level;
    }
    if (own.text.empty()) own.text = "none";
    return own;
}

} // namespace

std::optional<DeviceRecord> ReadDeviceState(const std::string& printer) {
    return ParseDeviceRecord(ReadStored(printer, kDeviceVariable));
}

std::optional<OwnValue> ReadOwnVariable(const std::string& printer, const std::string& variable) {
    const std::vector<BYTE> value = ReadStored(printer, variable.c_str());
    if (value.empty()) return std::nullopt;
    if (variable == kSuppliesVariable) return SuppliesIn(value);
    const std::optional<DeviceRecord> device = ParseDeviceRecord(value);
    return device ? std::optional(OwnValue{DeviceJson(*device), DeviceText(*device)}) : std::nullopt;
}

std::optional<DeviceRecord> ParseDeviceRecord(const std::vector<uint8_t>& value) {
    DeviceRecord record{};
    if (value.size() != sizeof record) return std::nullopt;
    std::memcpy(&record, value.data(), sizeof record);
    if (record.version != kDeviceRecordVersion) return std::nullopt;
    return record;
}

std::optional<uint64_t> AgeMs(const SYSTEMTIME& time) {
    const uint64_t then = product::ToTime(time);
    return then == 0 ? std::nullopt : std::optional(SinceMs(then));
}

std::optional<uint64_t> AgeMs(const DeviceRecord& record) {
    return record.answeredAt == 0 ? std::nullopt : std::optional(SinceMs(record.answeredAt));
}

bool IsStale(const DeviceRecord& record) {
    const std::optional<uint64_t> age = AgeMs(record);
    return record.up == 0 || !age || (record.answersEveryMs != 0 && *age > record.answersEveryMs + kOverdueMarginMs);
}

std::string DurationText(uint64_t milliseconds) {
    struct Unit {
        uint64_t ms;
        const char* name;
    };
    constexpr uint64_t kSecond = 1000, kMinute = 60 * kSecond, kHour = 60 * kMinute, kDay = 24 * kHour;
    for (const Unit& unit : {Unit{2 * kDay, "days"}, Unit{kHour, "h"}, Unit{kMinute, "min"}})
        if (milliseconds >= unit.ms)
            return std::to_string(milliseconds / (unit.ms == 2 * kDay ? kDay : unit.ms)) + " " + unit.name;
    return std::to_string(milliseconds / kSecond) + " s";
}

std::string AddressOf(const DeviceRecord& record) {
    return FieldText(record.device);
}

std::string TroubleOf(const DeviceRecord& record) {
    if (!IsStale(record)) return "";
    const std::string trouble = FieldText(record.trouble);
    if (record.up == 0) return trouble.empty() ? "does not answer" : trouble;
    return record.answeredAt == 0 ? "has not answered yet" : "is overdue";
}

std::string DeviceText(const DeviceRecord& record) {
    const std::optional<uint64_t> age = AgeMs(record);
    const std::string trouble = FieldText(record.trouble);
    if (record.up == 0) return "does not answer" + (trouble.empty() ? "" : ": " + trouble);
    if (!age) return "has not answered yet";
    return (IsStale(record) ? "is overdue, answered " : "answered ") + DurationText(*age) + " ago";
}

Json DeviceJson(const DeviceRecord& record) {
    const std::optional<uint64_t> age = AgeMs(record);
    return {{"address", AddressOf(record)},
            {"answers", record.up != 0},
            {"trouble", FieldText(record.trouble)},
            {"age_ms", age ? Json(*age) : Json(nullptr)},
            {"stale", IsStale(record)}};
}

Provenance ProvenanceOf(const Variable& variable, const std::vector<uint8_t>& value, std::optional<uint64_t> written,
                        const std::optional<DeviceRecord>& device) {
    Provenance provenance{.from = "model", .ageMs = written};
    const product::VariableMeaning* meaning = product::MeaningOf(variable.name.c_str());
    if (!meaning || variable.fromModel) return provenance;
    provenance.meaning = product::Explain(*meaning, value.data(), value.size());
    provenance.meaning.words = Printable(ToUtf8(provenance.meaning.words));
    provenance.from = product::NameOf(meaning->origin);
    if (meaning->origin != product::Origin::Device || !device) return provenance;
    // A value that has not changed was still confirmed by the last answer.
    provenance.stale = IsStale(*device);
    if (written) provenance.ageMs = AgeMs(*device);
    return provenance;
}

void AddProvenance(Json& json, const Provenance& provenance) {
    json["meaning"] = provenance.meaning.words;
    json["severity"] = product::NameOf(provenance.meaning.severity);
    json["from"] = provenance.from;
    json["age_ms"] = provenance.ageMs ? Json(*provenance.ageMs) : Json(nullptr);
    json["stale"] = provenance.stale;
}

std::string ProvenanceText(const Provenance& provenance) {
    std::string text = provenance.meaning.words;
    if (!provenance.ageMs) return text;
    text += (text.empty() ? "" : ", ") + std::string("from the ") + provenance.from + ", " +
            DurationText(*provenance.ageMs) + " ago";
    if (provenance.stale) text += ", stale";
    return text;
}

// No state.
#include "base/device_state.h"

#include "base/product.h"
#include "base/service_client.h"
#include "base/text.h"

#include "product/file_times.h"
#include "product/guards.h"
#include "product/program_client.h"
#include "product/signal_wait.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

// Longer than a watcher's own pauses.
constexpr uint64_t kOverdueMarginMs = 2000;
constexpr uint64_t kTicksPerMs = 10000; // of FILETIME

constexpr uint64_t kRecentMs = 2000;   // an answer that need not be asked for again
constexpr DWORD kAskedLimitMs = 6000;  // longer than a printer side waits for an answer
constexpr DWORD kReturnLimitMs = 1000; // for one that did not answer before
constexpr char kSideSilent[] = "its printer side does not ask it";

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

// A printer's database. Not open without a service, or when there is none.
struct OpenedDatabase {
    explicit OpenedDatabase(const std::string& printer) {
        if (FindPrinterDatabase(printer, &name) == Answer::Done && !name.empty())
            static_cast<void>(OpenDatabase(name.c_str(), handle.Receive()));
    }
    // Empty when there is no such variable.
    std::vector<BYTE> Read(const char* variable) const {
        std::vector<BYTE> value;
        return handle && ReadWholeValue(handle.Get(), variable, &value) == Answer::Done ? value : std::vector<BYTE>();
    }
    std::string name{};
    Guard<DatabaseHandle, &CloseDatabase> handle{};
};

std::vector<BYTE> ReadStored(const std::string& printer, const char* variable) {
    if (!ProductInitialised()) return {};
    const Binding binding;
    return binding.made ? OpenedDatabase(printer).Read(variable) : std::vector<BYTE>();
}

// A look at the state of one device. While it watches the state it follows the printer, which is asked for that.
class DeviceLook {
public:
    explicit DeviceLook(const std::string& printer)
        : m_database(printer), m_state(ParseDeviceRecord(m_database.Read(kDeviceVariable))) {
        if (!m_state || (m_state->up != 0 && AgeMs(*m_state).value_or(kRecentMs + 1) <= kRecentMs) ||
            std::strcmp(m_state->trouble, kPrinterSideEnded) == 0)
            return;
        m_writes = Writes();
        m_watches = WatchVariable(m_database.handle.Get(), kDeviceVariable, product::kEveryWrite) == Answer::Done;
        if (!m_watches) return;
        m_written = OpenWrittenEvent(m_database.name, kDeviceVariable);
        m_wait.SetEvent(0, m_written.Get());
    }
    ~DeviceLook() {
        if (m_watches) UnwatchVariable(m_database.handle.Get(), kDeviceVariable);
    }
    DeviceLook(const DeviceLook&) = delete;
    DeviceLook& operator=(const DeviceLook&) = delete;

    // start: the tick count when the look began. Every question that has ended is a write.
    std::optional<DeviceRecord> Result(DWORD start) {
        if (!m_watches || !m_written) return m_state;
        const DWORD limit = m_state->up != 0 ? kAskedLimitMs : kReturnLimitMs;
        DWORD waited = GetTickCount() - start;
        while (Writes() == m_writes && waited < limit) {
            if (m_wait.Wait(limit - waited) == product::Woken::Failed) break;
            waited = GetTickCount() - start;
        }
        const bool told = Writes() != m_writes;
        m_state = ParseDeviceRecord(m_database.Read(kDeviceVariable));
        if (!m_state || told || m_state->up == 0) return m_state;
        m_state->up = 0;
        std::strcpy(m_state->trouble, kSideSilent);
        return m_state;
    }

private:
    DWORD Writes() const {
        product::VariableInfo info{};
        GetVariableInfo(m_database.handle.Get(), kDeviceVariable, &info);
        return info.writes;
    }

    OpenedDatabase m_database;
    std::optional<DeviceRecord> m_state;
    DWORD m_writes = 0;
    bool m_watches = false;
    KernelHandle m_written{};
    product::SignalWait m_wait{nullptr};
};

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

std::vector<std::optional<DeviceRecord>> AskDeviceStates(const std::vector<std::string>& printers) {
    std::vector<std::optional<DeviceRecord>> states(printers.size());
    if (!ProductInitialised()) return states;
    const Binding binding;
    if (!binding.made) return states;
    const DWORD start = GetTickCount();
    std::vector<std::unique_ptr<DeviceLook>> looks; // all are asked before one is waited for
    for (const std::string& printer : printers)
        looks.push_back(std::make_unique<DeviceLook>(printer));
    for (size_t i = 0; i < looks.size(); ++i)
        states[i] = looks[i]->Result(start);
    return states;
}

std::optional<DeviceRecord> AskDeviceState(const std::string& printer) {
    return AskDeviceStates({printer}).front();
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

bool IsFromDevice(const Variable& variable) {
    const product::VariableMeaning* meaning = variable.fromModel ? nullptr : product::MeaningOf(variable.name.c_str());
    return meaning && meaning->origin == product::Origin::Device;
}

Provenance ProvenanceOf(const Variable& variable, const std::vector<uint8_t>& value, std::optional<uint64_t> written,
                        const std::optional<DeviceRecord>& device) {
    Provenance provenance{.from = "model", .ageMs = written};
    const product::VariableMeaning* meaning = product::MeaningOf(variable.name.c_str());
    if (!meaning || variable.fromModel) return provenance;
    provenance.meaning = product::Explain(*meaning, value.data(), value.size());
    provenance.meaning.words = Printable(ToUtf8(provenance.meaning.words));
    provenance.from = product::NameOf(meaning->origin);
    if (!IsFromDevice(variable) || !device) return provenance;
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

// How a printer's device stands with the printer, as its printer side tells (product/device_record.h), and what that
// says of the values. No state.
#pragma once

#include "base/catalogue.h"
#include "base/output.h"

#include "product/device_record.h"
#include "product/meanings.h"
#include "product/supplies_record.h"

#include <optional>
#include <string>
#include <vector>

// printer: ANSI. None without a service, without a database of the printer, or when no printer side has told one.
std::optional<DeviceRecord> ReadDeviceState(const std::string& printer);
// The same of several printers, for people who look: a printer whose last answer is older than 2 s is asked now, and
// the answer is waited for until the printer side counts it as overdue. So no value is shown as fresh whose printer has
// died. Of one that does not answer, only a second is waited for its return.
std::vector<std::optional<DeviceRecord>> AskDeviceStates(const std::vector<std::string>& printers);
std::optional<DeviceRecord> AskDeviceState(const std::string& printer);

// The record in a value of the variable; none: it is not one.
std::optional<DeviceRecord> ParseDeviceRecord(const std::vector<uint8_t>& value);

// The product's own variables of a printer with a device, which no catalogue has.
inline constexpr const char* kOwnVariables[] = {kDeviceVariable, kSuppliesVariable};
// One of them in JSON, and on a line for each entry. Nothing: the printer has none.
struct OwnValue {
    Json json;
    std::string text;
};
std::optional<OwnValue> ReadOwnVariable(const std::string& printer, const std::string& variable);

// Of a time (UTC) that is not all zero.
std::optional<uint64_t> AgeMs(const SYSTEMTIME& time);
// The age of the last answer in milliseconds; none: there was none.
std::optional<uint64_t> AgeMs(const DeviceRecord& record);
// What was read is no longer sure: the printer does not answer, or is overdue.
bool IsStale(const DeviceRecord& record);

// What is asked; UTF-8.
std::string AddressOf(const DeviceRecord& record);
// Why what was read is no longer sure, without numbers that change; empty while it is sure.
std::string TroubleOf(const DeviceRecord& record);
// "answered 2 s ago", "does not answer: no connection to printer port 631".
std::string DeviceText(const DeviceRecord& record);
Json DeviceJson(const DeviceRecord& record);

// "2 s", "3 min", "4 h", "5 days".
std::string DurationText(uint64_t milliseconds);

// Whether a printer's device tells the variable.
bool IsFromDevice(const Variable& variable);

// What a value means, who it comes from, how old it is.
struct Provenance {
    product::Explanation meaning{};
    const char* from = "";
    std::optional<uint64_t> ageMs{};
    bool stale = false;
};
// written: milliseconds since the variable was written; none: never, or not known. device: of the printer, if it has
// one.
Provenance ProvenanceOf(const Variable& variable, const std::vector<uint8_t>& value, std::optional<uint64_t> written,
                        const std::optional<DeviceRecord>& device);
// Adds meaning, severity, from, age_ms, stale.
void AddProvenance(Json& json, const Provenance& provenance);
// "paper jam, from the device, 2 s ago".
std::string ProvenanceText(const Provenance& provenance);

// State: the object's.
#include "printer_mib.h"

#include "product/conditions.h"
#include "session.h"

#include <algorithm>
#include <array>
#include <initializer_list>

namespace devices {
namespace {

constexpr int64_t kMostNumber = 0x7FFFFFFF;

// All below 1.3.6.1.2.1.
ObjectId Mib(std::initializer_list<uint32_t> rest) {
    ObjectId object = {1, 3, 6, 1, 2, 1};
    object.insert(object.end(), rest);
    return object;
}
ObjectId Of(ObjectId column, std::initializer_list<uint32_t> index) {
    column.insert(column.end(), index);
    return column;
}

const ObjectId kSysLocation = Mib({1, 6, 0});
const ObjectId kMemorySize = Mib({25, 2, 2, 0});
const ObjectId kStorageType = Mib({25, 2, 3, 1, 2});
const ObjectId kStorageUnits = Mib({25, 2, 3, 1, 4});
const ObjectId kStorageSize = Mib({25, 2, 3, 1, 5});
const ObjectId kDeviceType = Mib({25, 3, 2, 1, 2});
const ObjectId kDeviceDescription = Mib({25, 3, 2, 1, 3});
const ObjectId kDeviceStatus = Mib({25, 3, 2, 1, 5});
const ObjectId kPrinterStatus = Mib({25, 3, 5, 1, 1});
const ObjectId kErrorState = Mib({25, 3, 5, 1, 2});
const ObjectId kConfigChanges = Mib({43, 5, 1, 1, 1});
const ObjectId kDefaultInput = Mib({43, 5, 1, 1, 6});
const ObjectId kSerialNumber = Mib({43, 5, 1, 1, 17});
const ObjectId kAlertEvents = Mib({43, 5, 1, 1, 19});
const ObjectId kCoverStatus = Mib({43, 6, 1, 1, 3});
const ObjectId kInputType = Mib({43, 8, 2, 1, 2});
const ObjectId kInputCapacity = Mib({43, 8, 2, 1, 9});
const ObjectId kInputLevel = Mib({43, 8, 2, 1, 10});
const ObjectId kInputMedia = Mib({43, 8, 2, 1, 12});
const ObjectId kInputName = Mib({43, 8, 2, 1, 13});
const ObjectId kOutputName = Mib({43, 9, 2, 1, 7});
const ObjectId kCounterUnit = Mib({43, 10, 2, 1, 3});
const ObjectId kLifeCount = Mib({43, 10, 2, 1, 4});
const ObjectId kColorants = Mib({43, 10, 2, 1, 6});
const ObjectId kSupplyColorant = Mib({43, 11, 1, 1, 3});
const ObjectId kSupplyType = Mib({43, 11, 1, 1, 5});
const ObjectId kColorantValue = Mib({43, 12, 1, 1, 4});
const ObjectId kSupplyText = Mib({43, 11, 1, 1, 6});
const ObjectId kSupplyUnit = Mib({43, 11, 1, 1, 7});
const ObjectId kSupplyCapacity = Mib({43, 11, 1, 1, 8});
const ObjectId kSupplyLevel = Mib({43, 11, 1, 1, 9});
const ObjectId kMediaPathType = Mib({43, 13, 4, 1, 9});
const ObjectId kDisplayText = Mib({43, 16, 5, 1, 2});
const ObjectId kAlertSeverity = Mib({43, 18, 1, 1, 2});
const ObjectId kAlertGroupIndex = Mib({43, 18, 1, 1, 5});
const ObjectId kAlertCode = Mib({43, 18, 1, 1, 7});

constexpr const char* kPrinterType = "1.3.6.1.2.1.25.3.1.5";
constexpr const char* kRamType = "1.3.6.1.2.1.25.2.1.2";

// Numbers of the MIBs.
constexpr int64_t kDeviceRunning = 2, kDeviceWarning = 3, kDeviceDown = 5;
constexpr int64_t kPrinterOther = 1, kPrinterIdle = 3, kPrinterPrinting = 4, kPrinterWarmup = 5;
constexpr int64_t kImpressions = 7;
constexpr int64_t kPercent = 19;
constexpr int64_t kSomeLeft = -3; // -1 other, -2 unknown
constexpr int64_t kCoverOpen = 3, kInterlockOpen = 5;
constexpr int64_t kManualFeed = 5;
constexpr int64_t kLongEdgeDuplex = 3, kShortEdgeDuplex = 4;
constexpr int64_t kCritical = 3, kWarning = 4;
constexpr uint32_t kAlertPowerSaver = 23;

struct Word {
    int64_t number;
    const char* word;
};
// prtMarkerSuppliesType and prtMarkerSuppliesSupplyUnit, RFC 3805.
constexpr Word kSupplyKinds[] = {{3, "toner"},           {4, "wasteToner"}, {5, "ink"},    {6, "inkCartridge"},
                                 {7, "inkRibbon"},       {8, "wasteInk"},   {9, "opc"},    {10, "developer"},
                                 {11, "fuserOil"},       {14, "wasteWax"},  {15, "fuser"}, {20, "transferUnit"},
                                 {21, "tonerCartridge"}, {32, "staples"}};
constexpr Word kSupplyUnits[] = {{7, "impressions"},          {8, "sheets"},         {11, "hours"},
                                 {12, "thousandthsOfOunces"}, {13, "tenthsOfGrams"}, {14, "hundrethsOfFluidOunces"},
                                 {15, "tenthsOfMilliliters"}, {18, "items"},         {19, "percent"}};

template <size_t count>
std::string WordOf(const Word (&words)[count], int64_t number) {
    for (const Word& row : words)
        if (row.number == number) return row.word;
    return "";
}

using Values = std::map<ObjectId, AgentValue>;

int64_t NumberIn(const Values& values, const ObjectId& object, int64_t fallback = kNotKnown) {
    const auto found = values.find(object);
    return found != values.end() && found->second.isNumber ? found->second.number : fallback;
}

std::string TextIn(const Values& values, const ObjectId& object) {
    const auto found = values.find(object);
    return found == values.end() || found->second.isNumber
               ? ""
               : CleanText(found->second.bytes.data(), found->second.bytes.size());
}

// What is negative is no number.
int32_t Known(int64_t number) {
    return number < 0 || number > kMostNumber ? kNotKnown : static_cast<int32_t>(number);
}

} // namespace

uint16_t ErrorBitsOf(const std::string& octets) {
    const auto octet = [&](size_t at) {
        return at < octets.size() ? static_cast<unsigned>(static_cast<unsigned char>(octets[at])) : 0u;
    };
    return static_cast<uint16_t>(octet(0) << 8 | octet(1));
}

// The first device that is a printer; 1 on nearly all.
bool PrinterMib::FindPrinter(Agent& agent) {
    Values types;
    if (!agent.Walk(kDeviceType, &types)) return false;
    m_device = 1;
    for (const auto& [index, type] : types) {
        if (index.size() != 1 || type.bytes != kPrinterType) continue;
        m_device = index[0];
        break;
    }
    return true;
}

bool PrinterMib::ReadStatus(Agent& agent, Reading* reading, bool* isPrinter) {
    const uint32_t device = m_device;
    Values values;
    if (!agent.Get({Of(kDeviceStatus, {device}), Of(kPrinterStatus, {device}), Of(kErrorState, {device}),
                    Of(kConfigChanges, {device}), Of(kAlertEvents, {device}), Of(kDefaultInput, {device}),
                    Of(kLifeCount, {device, 1}), Of(kCounterUnit, {device, 1})},
                   &values))
        return false;
    *isPrinter = !values.empty();
    const int64_t events = NumberIn(values, Of(kAlertEvents, {device}));
    const int64_t changes = NumberIn(values, Of(kConfigChanges, {device}));
    if (events < 0 || events != m_alertEvents) {
        if (!ReadAlerts(agent)) return false;
        m_alertEvents = events;
    }
    if (changes != m_configChanges) m_identified = false;
    m_configChanges = changes;

    const int64_t deviceStatus = NumberIn(values, Of(kDeviceStatus, {device}));
    const int64_t printerStatus = NumberIn(values, Of(kPrinterStatus, {device}));
    const auto state = values.find(Of(kErrorState, {device}));
    const uint16_t errorBits = state != values.end() ? ErrorBitsOf(state->second.bytes) : uint16_t{0};
    reading->state = printerStatus == kPrinterPrinting ? State::Printing
                     : printerStatus == kPrinterIdle   ? State::Idle
                                                       : State::Unknown;
    reading->warmingUp = printerStatus == kPrinterWarmup;
    reading->asleep = printerStatus == kPrinterOther && deviceStatus == kDeviceRunning && errorBits == 0;
    reading->errors = deviceStatus == kDeviceDown;
    reading->warnings = deviceStatus == kDeviceWarning;
    reading->conditions = product::ConditionsOfErrorState(errorBits);
    const Alert* first = nullptr;
    for (const Alert& alert : m_alerts) {
        const uint32_t bit = product::ConditionOfAlert(alert.code);
        if (bit < product::kConditionCount) reading->conditions |= 1u << bit;
        reading->asleep = reading->asleep || alert.code == kAlertPowerSaver;
        const bool worse = first == nullptr || (alert.severity == kCritical && first->severity != kCritical);
        if ((alert.severity == kCritical || alert.severity == kWarning) && worse) first = &alert;
    }
    if (first != nullptr && Known(first->groupIndex) > 0) reading->about = static_cast<uint32_t>(first->groupIndex);
    reading->pausing = (reading->conditions & (1u << product::kPausedBit)) != 0;
    if (NumberIn(values, Of(kCounterUnit, {device, 1})) == kImpressions)
        reading->pageCount = std::max<int64_t>(NumberIn(values, Of(kLifeCount, {device, 1})), kNotKnown);
    reading->currentFeeder = Known(NumberIn(values, Of(kDefaultInput, {device})));
    return true;
}

bool PrinterMib::ReadAlerts(Agent& agent) {
    Values severities, groups, codes;
    if (!agent.Walk(Of(kAlertSeverity, {m_device}), &severities) ||
        !agent.Walk(Of(kAlertGroupIndex, {m_device}), &groups) || !agent.Walk(Of(kAlertCode, {m_device}), &codes))
        return false;
    m_alerts.clear();
    for (const auto& [index, code] : codes)
        if (code.isNumber && code.number > 0 && code.number <= kMostNumber)
            m_alerts.push_back({.severity = NumberIn(severities, index),
                                .groupIndex = NumberIn(groups, index),
                                .code = static_cast<uint32_t>(code.number)});
    return true;
}

bool PrinterMib::ReadTables(Agent& agent, Reading* reading) {
    const auto walk = [&](const ObjectId& column, Values* rows) { return agent.Walk(Of(column, {m_device}), rows); };
    Values levels, capacities, media, names, types;
    if (!walk(kInputLevel, &levels) || !walk(kInputCapacity, &capacities) || !walk(kInputMedia, &media) ||
        !walk(kInputName, &names) || !walk(kInputType, &types))
        return false;
    for (const auto& [index, value] : levels) {
        if (reading->trays.size() == kTraysMax) break;
        const int64_t level = value.isNumber ? value.number : kNotKnown;
        reading->trays.push_back({.name = TextIn(names, index),
                                  .media = TextIn(media, index),
                                  .capacity = Known(NumberIn(capacities, index)),
                                  .level = Known(level),
                                  .hasSome = level == kSomeLeft || level > 0,
                                  .feed = NumberIn(types, index) == kManualFeed ? Feed::Manual : Feed::Tray});
    }
    Values supplyLevels, supplyCapacities, units, texts, kinds, colorants, colours;
    if (!walk(kSupplyLevel, &supplyLevels) || !walk(kSupplyCapacity, &supplyCapacities) || !walk(kSupplyUnit, &units) ||
        !walk(kSupplyText, &texts) || !walk(kSupplyType, &kinds) || !walk(kSupplyColorant, &colorants) ||
        !walk(kColorantValue, &colours))
        return false;
    for (const auto& [index, value] : supplyLevels) {
        if (reading->supplies.size() == kSuppliesMax) break;
        const int64_t level = value.isNumber ? value.number : kNotKnown;
        const int64_t unit = NumberIn(units, index);
        const int64_t capacity = unit == kPercent ? 100 : NumberIn(supplyCapacities, index);
        Supply supply{.name = TextIn(texts, index),
                      .kind = WordOf(kSupplyKinds, NumberIn(kinds, index)),
                      .unit = WordOf(kSupplyUnits, unit),
                      .level = Known(level),
                      .capacity = Known(capacity)};
        if (const int64_t colorant = NumberIn(colorants, index); colorant > 0 && colorant <= kMostNumber)
            supply.colour = TextIn(colours, {static_cast<uint32_t>(colorant)});
        if (level >= 0 && level <= kMostNumber && capacity > 0)
            supply.percent = static_cast<int32_t>(std::min<int64_t>(level * 100 / capacity, 100));
        reading->supplies.push_back(std::move(supply));
    }
    Values covers, lines;
    if (!walk(kCoverStatus, &covers) || !walk(kDisplayText, &lines)) return false;
    for (const auto& [index, value] : covers)
        if (value.isNumber && (value.number == kCoverOpen || value.number == kInterlockOpen)) reading->coverOpen = 1;
    for (const auto& [index, value] : lines) {
        const std::string line = TextIn(lines, index);
        if (!line.empty() && reading->display.size() + line.size() + 1 <= kTextMax)
            reading->display += (reading->display.empty() ? "" : " ") + line;
    }
    return true;
}

bool PrinterMib::ReadIdentity(Agent& agent, Reading* reading) {
    const uint32_t device = m_device;
    Values values, types, units, sizes, outputs, paths;
    if (!agent.Get({Of(kDeviceDescription, {device}), Of(kSerialNumber, {device}), kSysLocation, kMemorySize,
                    Of(kColorants, {device, 1})},
                   &values) ||
        !agent.Walk(kStorageType, &types) || !agent.Walk(kStorageUnits, &units) || !agent.Walk(kStorageSize, &sizes) ||
        !agent.Walk(Of(kOutputName, {device}), &outputs) || !agent.Walk(Of(kMediaPathType, {device}), &paths))
        return false;
    Identity identity;
    identity.model = TextIn(values, Of(kDeviceDescription, {device}));
    identity.manufacturer = identity.model.substr(0, identity.model.find(' '));
    identity.serial = TextIn(values, Of(kSerialNumber, {device}));
    identity.location = TextIn(values, kSysLocation);
    identity.memoryKiB = Known(NumberIn(values, kMemorySize));
    for (const auto& [index, type] : types) {
        const int64_t unit = NumberIn(units, index), size = NumberIn(sizes, index);
        if (type.bytes != kRamType || unit <= 0 || size < 0 || size > kMostNumber) continue;
        identity.memoryKiB = Known(unit <= kMostNumber ? size * unit / 1024 : kNotKnown);
        break;
    }
    if (const int64_t colorants = NumberIn(values, Of(kColorants, {device, 1})); colorants > 0)
        identity.colour = colorants > 1;
    for (const auto& [index, type] : paths)
        identity.duplex = identity.duplex.value_or(false) ||
                          (type.isNumber && (type.number == kLongEdgeDuplex || type.number == kShortEdgeDuplex));
    for (const auto& [index, name] : outputs)
        if (identity.outputBins.size() < kTraysMax) identity.outputBins.push_back(TextIn(outputs, index));
    reading->identity = std::move(identity);
    return true;
}

bool PrinterMib::Read(Agent& agent, bool identity, Reading* reading, bool* isPrinter) {
    *isPrinter = false;
    if (m_device == 0 && !FindPrinter(agent)) return false;
    if (!ReadStatus(agent, reading, isPrinter)) return false;
    if (!*isPrinter) {
        m_device = 0;
        return true;
    }
    if ((identity || !m_identified) && !ReadIdentity(agent, reading)) return false;
    m_identified = true;
    return ReadTables(agent, reading);
}

} // namespace devices

// The conditions that a printer reports, from whatever source: a bit each in "PrinterStatus2", and a cause in the
// second word of "PrinterStatus". No state.
//
// Sources: printer-state-reasons (RFC 8011, section 5.4.12; PWG 5100.9), prtAlertCode (RFC 3805),
// hrPrinterDetectedErrorState (RFC 2790).
#pragma once

#include <cstdint>
#include <iterator>
#include <string_view>

namespace product {

// The second word of "PrinterStatus"; of several conditions the lowest cause that is not None.
enum class Cause : uint8_t {
    None,
    Jam,
    NoPaper,
    CoverOpen,
    SupplyEmpty,
    OutputFull,
    MediaMismatch,
    ServiceNeeded,
};

struct Condition {
    const char* words;         // for people
    const char* keywords[2]{}; // without -error, -warning, -report
    uint16_t alertCodes[4]{};  // 0: no more
    uint16_t errorBits = 0;    // of the error state: first octet high
    Cause cause = Cause::None;
    bool stops = false; // nothing is printed meanwhile
};

// The index is the bit.
inline constexpr Condition kConditions[] = {
    {"paper jam", {"media-jam"}, {8}, 0x0400, Cause::Jam, true},
    {"out of paper", {"media-empty"}, {808}, 0x4004, Cause::NoPaper, true},
    {"paper needed", {"media-needed"}, {809, 810}, 0, Cause::NoPaper, true},
    {"paper low", {"media-low"}, {807}, 0x8000},
    {"tray missing", {"input-tray-missing"}, {801}, 0x0080, Cause::NoPaper, true},
    {"cover open", {"cover-open", "door-open"}, {3, 501}, 0x0800, Cause::CoverOpen, true},
    {"interlock open", {"interlock-open"}, {5}, 0, Cause::CoverOpen, true},
    {"toner or ink empty", {"toner-empty", "marker-supply-empty"}, {1101, 1102}, 0x1000, Cause::SupplyEmpty, true},
    {"toner or ink low", {"toner-low", "marker-supply-low"}, {1104, 1105}, 0x2000},
    {"toner or ink missing", {"marker-supply-missing"}, {1115}, 0x0020, Cause::SupplyEmpty, true},
    {"waste container full", {"marker-waste-full"}, {1109, 1110}, 0, Cause::ServiceNeeded, true},
    {"waste container almost full", {"marker-waste-almost-full"}, {1107, 1108}},
    {"output tray full", {"output-area-full"}, {903}, 0x0008, Cause::OutputFull, true},
    {"output tray almost full", {"output-area-almost-full"}, {902}, 0x0010},
    {"output tray missing", {"output-tray-missing"}, {901}, 0x0040, Cause::OutputFull, true},
    {"drum worn out", {"opc-life-over"}, {1112}, 0, Cause::ServiceNeeded, true},
    {"drum near its end", {"opc-near-eol"}, {1111}, 0x0002},
    {"fuser too hot", {"fuser-over-temp"}, {1002}, 0, Cause::ServiceNeeded, true},
    {"fuser too cold", {"fuser-under-temp"}, {1001}},
    {"developer empty", {"developer-empty"}, {1114}, 0, Cause::SupplyEmpty, true},
    {"developer low", {"developer-low"}, {1113}},
    {"paper size cannot be fed",
     {"input-cannot-feed-size-selected", "input-media-size-change"},
     {813, 802},
     0,
     Cause::MediaMismatch,
     true},
    {"interpreter resource missing", {"interpreter-resource-unavailable"}, {1507}},
    {"spool area full", {"spool-area-full"}, {34}},
    {"paused", {"paused"}, {22}, 0x0200},
    {"shut down", {"shutdown", "power-down"}, {504}},
    {"not connected", {"timed-out", "connecting-to-device"}, {}},
    {"other trouble", {"other"}, {1, 2, 29, 30}, 0x0100, Cause::ServiceNeeded},
};
inline constexpr uint32_t kConditionCount = std::size(kConditions);
static_assert(kConditionCount == 28 && kConditionCount < 32);

// Bits that code names.
inline constexpr uint32_t kJamBit = 0;
inline constexpr uint32_t kEmptyBit = 1;
inline constexpr uint32_t kNeededBit = 2;
inline constexpr uint32_t kLowBit = 3;
inline constexpr uint32_t kTrayMissingBit = 4;
inline constexpr uint32_t kCoverBit = 5;
inline constexpr uint32_t kInterlockBit = 6;
inline constexpr uint32_t kWrongSizeBit = 21;
inline constexpr uint32_t kResourceBit = 22;
inline constexpr uint32_t kPausedBit = 24;
inline constexpr uint32_t kShutDownBit = 25;
inline constexpr uint32_t kNotConnectedBit = 26;
inline constexpr uint32_t kOtherBit = 27;
static_assert(std::string_view(kConditions[kOtherBit].keywords[0]) == "other");
static_assert(std::string_view(kConditions[kResourceBit].keywords[0]) == "interpreter-resource-unavailable");

// kConditionCount: none has it.
constexpr uint32_t ConditionOfKeyword(std::string_view keyword) {
    for (uint32_t bit = 0; bit < kConditionCount; ++bit)
        for (const char* own : kConditions[bit].keywords)
            if (own && keyword == own) return bit;
    return kConditionCount;
}

constexpr uint32_t ConditionOfAlert(uint32_t code) {
    for (uint32_t bit = 0; code != 0 && bit < kConditionCount; ++bit)
        for (const uint16_t own : kConditions[bit].alertCodes)
            if (code == own) return bit;
    return kConditionCount;
}

// As bits of "PrinterStatus2".
constexpr uint32_t ConditionsOfErrorState(uint16_t errorBits) {
    uint32_t conditions = 0;
    for (uint32_t bit = 0; bit < kConditionCount; ++bit)
        if ((kConditions[bit].errorBits & errorBits) != 0) conditions |= 1u << bit;
    return conditions;
}

constexpr Cause CauseOf(uint32_t conditions) {
    Cause first = Cause::None;
    for (uint32_t bit = 0; bit < kConditionCount; ++bit) {
        const Cause cause = kConditions[bit].cause;
        if ((conditions & (1u << bit)) == 0 || cause == Cause::None) continue;
        if (first == Cause::None || cause < first) first = cause;
    }
    return first;
}

// The first word of "PrinterStatus".
inline constexpr uint32_t kStatusPrinting = 0x1;
inline constexpr uint32_t kStatusWarmingUp = 0x2;
inline constexpr uint32_t kStatusAsleep = 0x4;
inline constexpr uint32_t kStatusPaused = 0x8;
inline constexpr uint32_t kStatusError = 0x10;
inline constexpr uint32_t kStatusWarning = 0x20;
inline constexpr uint32_t kStatusNoAnswer = 0x40;
inline constexpr uint32_t kStatusAcceptsNoJobs = 0x80;

} // namespace product

// The table, and the words of a value. No state.
#include "product/meanings.h"

#include "product/conditions.h"
#include "product/variable_names.h"
#include "product/variables.h"

#include <tvsqdz.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <string.h>
#include <string_view>

namespace product {

namespace {

constexpr uint32_t kNotKnown = 0xFFFFFFFF;

// ---- numbers and bits

constexpr Named kStatusBits[] = {
    {kStatusPrinting, "printing"},
    {kStatusWarmingUp, "warming up"},
    {kStatusAsleep, "asleep"},
    {kStatusPaused, "paused", Severity::Warning},
    {kStatusError, "stopped by an error", Severity::Error},
    {kStatusWarning, "needs attention soon", Severity::Warning},
    {kStatusNoAnswer, "does not answer", Severity::Error},
    {kStatusAcceptsNoJobs, "accepts no jobs", Severity::Warning},
};
constexpr Named kCauses[] = {
    {static_cast<uint32_t>(Cause::None), ""},
    {static_cast<uint32_t>(Cause::Jam), "paper jam", Severity::Error},
    {static_cast<uint32_t>(Cause::NoPaper), "no paper", Severity::Error},
    {static_cast<uint32_t>(Cause::CoverOpen), "cover open", Severity::Error},
    {static_cast<uint32_t>(Cause::SupplyEmpty), "toner or ink empty", Severity::Error},
    {static_cast<uint32_t>(Cause::OutputFull), "output tray full", Severity::Error},
    {static_cast<uint32_t>(Cause::MediaMismatch), "wrong paper", Severity::Error},
    {static_cast<uint32_t>(Cause::ServiceNeeded), "service needed", Severity::Error},
};
constexpr Named kNothingMore[] = {{0, ""}};
constexpr WordMeaning kPrinterStatus[] = {{.name = "state", .bits = kStatusBits},
                                          {.name = "cause", .numbers = kCauses},
                                          {.name = "about", .numbers = kNothingMore, .unit = "number of the unit"}};

// One bit for each condition.
constexpr auto kConditionBits = [] {
    std::array<Named, kConditionCount> bits{};
    for (uint32_t bit = 0; bit < kConditionCount; ++bit)
        bits[bit] = {1u << bit, kConditions[bit].words, kConditions[bit].stops ? Severity::Error : Severity::Warning};
    return bits;
}();
constexpr WordMeaning kPrinterStatus2[] = {{.bits = kConditionBits}};

constexpr Named kPrinting[] = {{0, "not printing"}, {1, "printing"}};
constexpr WordMeaning kPrintingStatus[] = {{.name = "state", .numbers = kPrinting},
                                           {.name = "progress", .unit = "pages out"}};

constexpr Named kJams[] = {{0, "no paper jam", Severity::None},
                           {1, "paper jam in another unit", Severity::Error},
                           {2, "paper jam", Severity::Error}};
constexpr Named kPaper[] = {{0, "paper is there", Severity::None}, {1, "no paper", Severity::Error}};
constexpr Named kPaperBits[] = {{0x1, "paper low", Severity::Warning},
                                {0x2, "out of paper", Severity::Error},
                                {0x4, "paper needed", Severity::Error},
                                {0x8, "tray missing", Severity::Error},
                                {0x10000, "tray 1 empty", Severity::Warning},
                                {0x20000, "tray 2 empty", Severity::Warning},
                                {0x40000, "tray 3 empty", Severity::Warning},
                                {0x80000, "tray 4 empty", Severity::Warning},
                                {0xFFF00000, "a further tray empty", Severity::Warning}};
constexpr Named kSizes[] = {{0, "paper sizes agree", Severity::None}, {1, "wrong paper size", Severity::Error}};
constexpr Named kForms[] = {{0, "no form error", Severity::None}, {1, "a form or font is missing", Severity::Error}};
constexpr Named kCovers[] = {{0, "covers closed", Severity::None}, {1, "cover open", Severity::Error}};
constexpr WordMeaning kErrPaperJam[] = {{.numbers = kJams}};
constexpr WordMeaning kErrNoPaper[] = {{.numbers = kPaper}};
constexpr WordMeaning kErrPaperState[] = {{.bits = kPaperBits}};
constexpr WordMeaning kErrPaperSizeError[] = {{.numbers = kSizes}};
constexpr WordMeaning kErrFormRegistError[] = {{.numbers = kForms}};
constexpr WordMeaning kErrCoverOpen[] = {{.numbers = kCovers}};

constexpr Named kWarm[] = {{0, "ready"}};
constexpr Named kAwake[] = {{0, "awake"}};
constexpr WordMeaning kWarmupRemains[] = {{.numbers = kWarm, .unit = "s"}};
constexpr WordMeaning kPowerSaveEnd[] = {{.numbers = kAwake, .unit = "s"}};
constexpr WordMeaning kPages[] = {{.unit = "pages"}};
constexpr WordMeaning kTrayNumber[] = {{.unit = "number of the tray"}};
constexpr WordMeaning kKiB[] = {{.unit = "KiB"}};

constexpr Named kConfigBits[] = {{0x1, "prints on both sides"},
                                 {0x2, "prints in colour"},
                                 {0x4, "has a finisher"},
                                 {0x8, "has several output trays"}};
constexpr WordMeaning kExtConfig[] = {{.bits = kConfigBits}};
constexpr Named kReceiveBits[] = {{0x1, "IPP"}, {0x2, "IPP with TLS"}};
constexpr WordMeaning kReceivePort[] = {{.bits = kReceiveBits}};

// RFC 8011.
constexpr Named kJobStates[] = {{0, "no job", Severity::None},
                                {3, "pending"},
                                {4, "held"},
                                {5, "printing"},
                                {6, "stopped", Severity::Warning},
                                {7, "cancelled"},
                                {8, "aborted", Severity::Error},
                                {9, "completed"}};
constexpr WordMeaning kJobStatus[] = {{.numbers = kJobStates}};

constexpr Named kExtStatusBits[] = {{TVS_EXT_STATUS_TAKES_REQUESTS, "takes direct requests", Severity::None}};
constexpr WordMeaning kExtStatus[] = {{.bits = kExtStatusBits}};
constexpr Named kSpoolerBits[] = {{TVS_SPOOLER_READY, "ready for forwarded requests", Severity::None},
                                  {TVS_SPOOLER_RUNS, "takes refresh requests", Severity::None}};
constexpr WordMeaning kSpoolerStatus[] = {{.bits = kSpoolerBits}};
constexpr Named kAuthorityBits[] = {{TVS_AUTHORITY_PRINT, "print", Severity::None},
                                    {TVS_AUTHORITY_OWN_JOBS, "own jobs", Severity::None},
                                    {TVS_AUTHORITY_ALL_JOBS, "all jobs", Severity::None},
                                    {TVS_AUTHORITY_DIRECT_READ, "direct read", Severity::None},
                                    {TVS_AUTHORITY_DIRECT_WRITE, "direct write", Severity::None}};
constexpr WordMeaning kAuthority[] = {{.bits = kAuthorityBits}};
constexpr Named kPolling[] = {{0, "as usual", Severity::None}, {1, "often"}};
constexpr WordMeaning kCompulsivePolling[] = {{.numbers = kPolling}};
constexpr Named kForwarding[] = {{0, "requests go to the printer side", Severity::None}};
constexpr WordMeaning kFunction[] = {{.numbers = kForwarding}};

// ---- variables

constexpr VariableMeaning kMeanings[] = {
    {names::kAccessControlList, Origin::Users, "what users may do with the printer"},
    {names::kClientStatus, Origin::Users, "state of the applications"},
    {names::kCompulsivePolling, Origin::Users, "how often the printer is asked", kCompulsivePolling},
    {names::kCoverageInfo, Origin::Device, "coverage of the job, for each colour"},
    {names::kCurrentFeeder, Origin::Device, "tray that paper comes from", kTrayNumber},
    {names::kCurrentStatus, Origin::Library, "states of printer, spooler, applications and job"},
    {names::kDeleteJobId, Origin::Users, "job to cancel"},
    {names::kErrCoverOpen, Origin::Device, "covers", kErrCoverOpen},
    {names::kErrFormRegistError, Origin::Device, "forms and fonts", kErrFormRegistError},
    {names::kErrNoPaper, Origin::Device, "paper of the job", kErrNoPaper},
    {names::kErrNoPaper2, Origin::Library, "paper, in full"},
    {names::kErrPaperJam, Origin::Device, "paper jam", kErrPaperJam},
    {names::kErrPaperSizeError, Origin::Device, "paper size", kErrPaperSizeError},
    {names::kErrPaperState, Origin::Device, "state of the paper", kErrPaperState, "enough paper"},
    {names::kJobStatus, Origin::Device, "state of the job that is printed", kJobStatus},
    {names::kLMFunction, Origin::PrinterSide, "whether requests are forwarded", kFunction},
    {names::kLMStatus, Origin::Users, "state of the language monitor"},
    {names::kPageCount, Origin::Device, "pages printed since the printer was made", kPages},
    {names::kPort, Origin::PrinterSide, "address of the printer"},
    {names::kPortEx, Origin::Library, "address of the printer, and whether it takes requests"},
    {names::kPowerSaveEnd, Origin::Device, "time until the printer wakes", kPowerSaveEnd},
    {names::kPrinterBinConfig, Origin::Device, "trays and their paper"},
    {names::kPrinterDisplay, Origin::Device, "what the printer says", {}, nullptr, true},
    {names::kPrinterDisplay2, Origin::Device, "what the printer says, in full", {}, nullptr, true},
    {names::kPrinterExtConfig, Origin::Device, "what the printer is able to do", kExtConfig},
    {names::kPrinterExtStatus, Origin::PrinterSide, "whether the printer takes requests", kExtStatus},
    {names::kPrinterFontInfo, Origin::Users, "fonts"},
    {names::kPrinterLocation, Origin::Device, "where the printer stands"},
    {names::kPrinterManufacturer, Origin::Device, "who made the printer"},
    {names::kPrinterMemory, Origin::Device, "memory", kKiB},
    {names::kPrinterModel, Origin::Device, "model"},
    {names::kPrinterName, Origin::Spooler, "name of the printer"},
    {names::kPrinterOptConfig, Origin::Device, "output trays and finishers"},
    {names::kPrinterQueue, Origin::Device, "jobs that the printer has"},
    {names::kPrinterStatus, Origin::Device, "state of the printer", kPrinterStatus, "ready"},
    {names::kPrinterStatus2, Origin::Device, "everything that needs attention", kPrinterStatus2, "nothing"},
    {names::kPrinterStatusEx, Origin::Library, "state and errors of the printer"},
    {names::kPrintingJobInfo, Origin::Device, "job that is printed"},
    {names::kPrintingJobInfo2, Origin::Library, "job that is printed, and its coverage"},
    {names::kPrintingMyJob, Origin::Library, "whether this user's job is printed"},
    {names::kPrintingStatus, Origin::Device, "progress", kPrintingStatus},
    {names::kReadRequest, Origin::Users, "variable that the printer is asked for"},
    {names::kReceivePort, Origin::Device, "how jobs reach the printer", kReceivePort},
    {names::kRefreshStatus, Origin::Users, "request to ask the printer now"},
    {names::kRunningPSW, Origin::Users, "whether the status window runs"},
    {names::kRWResult, Origin::PrinterSide, "result of the last request"},
    {names::kSendingJobInfo, Origin::Spooler, "job that is sent to the printer"},
    {names::kServerOS, Origin::Spooler, "system of the print server"},
    {names::kServiceTag, Origin::Device, "serial number"},
    {names::kSetJob, Origin::Users, "pauses or resumes the job"},
    {names::kSpoolerQueue, Origin::Spooler, "jobs that wait in the spooler"},
    {names::kSpoolerStatus, Origin::PrinterSide, "whether the printer side works", kSpoolerStatus},
    {names::kSpoolingMyJob, Origin::Library, "whether this user's job is sent"},
    {names::kTerminateManager, Origin::Users, "request to end all managers"},
    {names::kUserAuthority, Origin::Library, "what this user may do", kAuthority},
    {names::kWarmupRemains, Origin::Device, "time until the printer is warm", kWarmupRemains},
    {names::kWriteRequest, Origin::Users, "variable that the printer is asked to change"},
};
static_assert(std::size(kMeanings) == std::size(kBuiltInVariables));
static_assert(
    [] {
        for (size_t i = 0; i < std::size(kMeanings); ++i)
            if (std::string_view(kMeanings[i].variable) != kBuiltInVariables[i].name) return false;
        return true;
    }(),
    "one row for each variable, in their order");

// ---- words

void Add(Explanation& explanation, const std::string& words, Severity severity) {
    if (words.empty()) return;
    explanation.words += (explanation.words.empty() ? "" : ", ") + words;
    explanation.severity = std::max(explanation.severity, severity);
}

// A number that is not known has none.
void AddNamed(const WordMeaning& meaning, uint32_t number, bool alone, std::vector<Named>& named) {
    if (number == kNotKnown && (alone || meaning.bits.empty())) return;
    for (const Named& bit : meaning.bits)
        if ((number & bit.value) != 0) named.push_back(bit);
    for (const Named& row : meaning.numbers)
        if (row.value == number) named.push_back(row);
}

void ExplainWord(const WordMeaning& meaning, uint32_t number, bool alone, Explanation& explanation) {
    if (number == kNotKnown && (alone || meaning.bits.empty())) return Add(explanation, "not known", Severity::Info);
    std::vector<Named> named;
    AddNamed(meaning, number, alone, named);
    for (const Named& row : named)
        Add(explanation, row.words, row.severity);
    const bool hasName = std::any_of(meaning.numbers.begin(), meaning.numbers.end(),
                                     [&](const Named& row) { return row.value == number; });
    if (hasName) return;
    if (*meaning.unit == '\0') return;
    const bool ordinal = std::string_view(meaning.unit).starts_with("number of");
    Add(explanation,
        ordinal ? std::string(meaning.unit + sizeof "number of the") + " " + std::to_string(number)
                : std::to_string(number) + " " + meaning.unit,
        Severity::None);
}

// False: a model's variable of this name.
bool HasWords(const VariableMeaning& meaning, SIZE_T size) {
    return size >= meaning.words.size() * sizeof(uint32_t);
}

template <typename Call>
void ForEachWord(const VariableMeaning& meaning, const BYTE* value, SIZE_T size, Call call) {
    if (!HasWords(meaning, size)) return;
    for (size_t i = 0; i < meaning.words.size(); ++i) {
        uint32_t number = 0;
        memcpy(&number, value + i * sizeof number, sizeof number);
        call(meaning.words[i], number);
    }
}

} // namespace

const char* NameOf(Origin origin) {
    switch (origin) {
    case Origin::Device:
        return "device";
    case Origin::PrinterSide:
        return "printer side";
    case Origin::Spooler:
        return "spooler";
    case Origin::Library:
        return "library";
    case Origin::Users:
        return "users";
    }
    return "";
}

const char* NameOf(Severity severity) {
    switch (severity) {
    case Severity::None:
        return "none";
    case Severity::Info:
        return "info";
    case Severity::Warning:
        return "warning";
    case Severity::Error:
        return "error";
    }
    return "";
}

const VariableMeaning* MeaningOf(const char* variable) {
    for (const VariableMeaning& row : kMeanings)
        if (strcmp(row.variable, variable) == 0) return &row;
    return nullptr;
}

Explanation Explain(const VariableMeaning& meaning, const BYTE* value, SIZE_T size) {
    Explanation explanation;
    if (meaning.text) explanation.words.assign(value, std::find(value, value + size, BYTE{0}));
    if (!HasWords(meaning, size)) return explanation;
    ForEachWord(meaning, value, size, [&](const WordMeaning& word, uint32_t number) {
        ExplainWord(word, number, meaning.words.size() == 1, explanation);
    });
    if (meaning.none && explanation.words.empty()) explanation.words = meaning.none;
    return explanation;
}

std::vector<Named> NamedParts(const VariableMeaning& meaning, const BYTE* value, SIZE_T size) {
    std::vector<Named> named;
    ForEachWord(meaning, value, size, [&](const WordMeaning& word, uint32_t number) {
        AddNamed(word, number, meaning.words.size() == 1, named);
    });
    return named;
}

} // namespace product

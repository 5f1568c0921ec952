// One function for each variable, and the table of them. No state.
#include "printer_values.h"

#include "text.h"

#include "product/conditions.h"
#include "product/supplies_record.h"
#include "product/variable_names.h"

#include <tvsqdz.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string.h>
#include <string_view>

using devices::Reading;

namespace {

constexpr SIZE_T kQueueEntriesMax = devices::kJobsMax;

// Everything that a value is made of.
struct Told {
    const Reading& reading;
    const devices::Identity* identity;
};

// Nothing: not known.
using Value = std::optional<Bytes>;

Bytes Words(std::initializer_list<DWORD> words) {
    Bytes bytes(words.size() * sizeof(DWORD));
    memcpy(bytes.data(), words.begin(), bytes.size());
    return bytes;
}

Value Number(DWORD number) {
    return Words({number});
}

// A text of a field of so many bytes, which keeps its NUL.
Bytes Text(const std::string& utf8, SIZE_T field) {
    const std::string ansi = CutAnsi(ToAnsi(utf8), field - 1);
    Bytes bytes(field);
    memcpy(bytes.data(), ansi.data(), ansi.size());
    return bytes;
}

Value TextOrUnknown(const std::string& utf8, SIZE_T field) {
    return utf8.empty() ? Value() : Value(Text(utf8, field));
}

bool Has(const Reading& reading, std::initializer_list<DWORD> bits) {
    return std::any_of(bits.begin(), bits.end(), [&](DWORD bit) { return (reading.conditions & (1u << bit)) != 0; });
}

const devices::Job* PrintingJob(const Reading& reading) {
    const auto found = std::find_if(reading.jobs.begin(), reading.jobs.end(), [](const devices::Job& job) {
        return job.state == devices::kJobProcessing || job.state == devices::kJobStopped;
    });
    return found == reading.jobs.end() ? nullptr : &*found;
}

template <typename Record>
Bytes BytesOf(const Record& record) {
    const auto* bytes = reinterpret_cast<const BYTE*>(&record);
    return {bytes, bytes + sizeof record};
}

// ---- status

Value PrinterStatus(const Told& told) {
    const Reading& reading = told.reading;
    const bool stopped = reading.state == devices::State::Stopped;
    DWORD status = 0;
    if (reading.state == devices::State::Printing) status |= product::kStatusPrinting;
    if (reading.warmingUp) status |= product::kStatusWarmingUp;
    if (reading.asleep) status |= product::kStatusAsleep;
    if (reading.pausing) status |= product::kStatusPaused;
    if (reading.errors || (stopped && !reading.pausing)) status |= product::kStatusError;
    if (reading.warnings) status |= product::kStatusWarning;
    if (Has(reading, {product::kNotConnectedBit, product::kShutDownBit})) status |= product::kStatusNoAnswer;
    if (reading.acceptsJobs == false) status |= product::kStatusAcceptsNoJobs;
    const auto cause = static_cast<DWORD>(product::CauseOf(reading.conditions));
    return Words({status, cause, cause != 0 ? reading.about : 0});
}

Value PrinterStatus2(const Told& told) {
    return Number(told.reading.conditions);
}

Value PrintingStatus(const Told& told) {
    if (!told.reading.jobsKnown) return Words({told.reading.state == devices::State::Printing ? 1u : 0u, 0});
    const devices::Job* job = PrintingJob(told.reading);
    return Words({job ? 1u : 0u, job && job->pages > 0 ? static_cast<DWORD>(job->pages) : 0});
}

// ---- errors

Value ErrPaperJam(const Told& told) {
    constexpr DWORD kJammed = 2;
    return Number(Has(told.reading, {product::kJamBit}) ? kJammed : 0);
}

Value ErrNoPaper(const Told& told) {
    return Number(Has(told.reading, {product::kEmptyBit, product::kNeededBit, product::kTrayMissingBit}) ? 1 : 0);
}

// Bits, and a bit for each of the first 16 trays that is empty.
Value ErrPaperState(const Told& told) {
    constexpr SIZE_T kTrays = 16;
    const Reading& reading = told.reading;
    DWORD state = 0;
    if (Has(reading, {product::kLowBit})) state |= 0x1;
    if (Has(reading, {product::kEmptyBit})) state |= 0x2;
    if (Has(reading, {product::kNeededBit})) state |= 0x4;
    if (Has(reading, {product::kTrayMissingBit})) state |= 0x8;
    for (SIZE_T tray = 0; tray < std::min<SIZE_T>(reading.trays.size(), kTrays); ++tray)
        if (reading.trays[tray].level == 0) state |= 0x10000u << tray;
    return Number(state);
}

Value ErrPaperSizeError(const Told& told) {
    return Number(Has(told.reading, {product::kWrongSizeBit}) ? 1 : 0);
}

Value ErrFormRegistError(const Told& told) {
    return Number(Has(told.reading, {product::kResourceBit}) ? 1 : 0);
}

Value ErrCoverOpen(const Told& told) {
    return Number(Has(told.reading, {product::kCoverBit, product::kInterlockBit}) || told.reading.coverOpen ? 1 : 0);
}

// No printer tells how long it takes.
Value WarmupRemains(const Told& told) {
    return told.reading.warmingUp ? Value() : Number(0);
}

Value PowerSaveEnd(const Told& told) {
    return told.reading.asleep ? Value() : Number(0);
}

// ---- paper, counters, display

Value CurrentFeeder(const Told& told) {
    return told.reading.currentFeeder > 0 ? Number(static_cast<DWORD>(told.reading.currentFeeder)) : Value();
}

Value PageCount(const Told& told) {
    const LONGLONG count = told.reading.pageCount;
    return count >= 0 && count < 0xFFFFFFFF ? Number(static_cast<DWORD>(count)) : Value();
}

struct PaperSize {
    std::string_view media; // the beginning of a name of PWG 5101.1
    WORD number;            // DMPAPER_* of wingdi.h
};
constexpr PaperSize kPaperSizes[] = {
    {"na_letter", 1}, {"na_legal", 5}, {"na_executive", 7}, {"iso_a3", 8},     {"iso_a4", 9},
    {"iso_a5", 11},   {"jis_b4", 12},  {"jis_b5", 13},      {"na_ledger", 17}, {"na_number-10", 20},
    {"iso_dl", 27},   {"iso_c5", 28},  {"na_monarch", 37},  {"iso_a6", 70},
};

WORD PaperNumber(std::string_view media) {
    for (const PaperSize& size : kPaperSizes)
        if (media.starts_with(size.media) && (media.size() == size.media.size() || media[size.media.size()] == '_'))
            return size.number;
    return 0;
}

// As the built-in value of "PrinterBinConfig" is laid out.
struct BinEntry {
    WORD firstId;
    WORD secondId;
    WORD paper;   // DMPAPER_*; 0: another, or not known
    BYTE present; // 1
    BYTE filling; // 0 not known, 1 empty, 2 has paper
    DWORD sheets; // that are left; 0 unless that is known
};
static_assert(sizeof(BinEntry) == 12);

Value PrinterBinConfig(const Told& told) {
    constexpr WORD kFirstManual = 1001;
    constexpr WORD kFirstEnvelope = 2001;
    const std::vector<devices::Tray>& trays = told.reading.trays;
    if (trays.empty()) return {};
    WORD next[] = {1, kFirstManual, kFirstEnvelope};
    Bytes bytes = Words({static_cast<DWORD>(trays.size())});
    for (const devices::Tray& tray : trays) {
        const WORD id = next[static_cast<int>(tray.feed)]++;
        BinEntry entry{.firstId = id, .secondId = id, .paper = PaperNumber(tray.media), .present = 1};
        entry.filling = tray.level == 0 ? 1 : tray.level > 0 || tray.hasSome ? 2 : 0;
        entry.sheets = tray.level > 0 ? static_cast<DWORD>(tray.level) : 0;
        const Bytes more = BytesOf(entry);
        bytes.insert(bytes.end(), more.begin(), more.end());
    }
    return bytes;
}

Value Display(const Told& told, SIZE_T field) {
    const Reading& reading = told.reading;
    const bool both = !reading.display.empty() && !reading.otherReasons.empty();
    return Text(reading.display + (both ? " " : "") + reading.otherReasons, field);
}

Value PrinterDisplay(const Told& told) {
    return Display(told, 132);
}

Value PrinterDisplay2(const Told& told) {
    return Display(told, 260);
}

Value Supplies(const Told& told) {
    if (told.reading.supplies.empty()) return {};
    Bytes bytes = Words({static_cast<DWORD>(told.reading.supplies.size())});
    for (const devices::Supply& supply : told.reading.supplies) {
        SupplyRecord record{.percent = supply.percent, .level = supply.level, .capacity = supply.capacity};
        const auto put = [](auto& field, const std::string& text) {
            const Bytes ansi = Text(text, sizeof field);
            memcpy(field, ansi.data(), sizeof field);
        };
        put(record.name, supply.name);
        put(record.kind, supply.kind);
        put(record.colour, supply.colour);
        put(record.unit, supply.unit);
        const Bytes more = BytesOf(record);
        bytes.insert(bytes.end(), more.begin(), more.end());
    }
    return bytes;
}

// ---- identity

Value PrinterExtConfig(const Told& told) {
    const devices::Identity& identity = *told.identity;
    if (!identity.duplex && !identity.colour && !identity.finisher && identity.outputBins.empty()) return {};
    DWORD bits = 0;
    if (identity.duplex == true) bits |= 0x1;
    if (identity.colour == true) bits |= 0x2;
    if (identity.finisher == true) bits |= 0x4;
    if (identity.outputBins.size() > 1) bits |= 0x8;
    return Number(bits);
}

struct OptionEntry {
    WORD kind; // 1 output bin, 2 finishing, 3 printing on both sides
    WORD number;
    DWORD detail; // of a finishing: its number of RFC 8011
};
static_assert(sizeof(OptionEntry) == 8);

Value PrinterOptConfig(const Told& told) {
    std::vector<OptionEntry> entries;
    const auto add = [&](WORD kind, SIZE_T number, DWORD detail) {
        entries.push_back({kind, static_cast<WORD>(number), detail});
    };
    const devices::Identity& identity = *told.identity;
    for (SIZE_T i = 0; i < identity.outputBins.size(); ++i)
        add(1, i + 1, 0);
    for (SIZE_T i = 0; i < identity.finishings.size(); ++i)
        add(2, i + 1, static_cast<DWORD>(identity.finishings[i]));
    if (identity.duplex == true) add(3, 1, 0);
    if (entries.empty()) return {};
    Bytes bytes = Words({static_cast<DWORD>(entries.size())});
    for (const OptionEntry& entry : entries) {
        const Bytes more = BytesOf(entry);
        bytes.insert(bytes.end(), more.begin(), more.end());
    }
    return bytes;
}

Value PrinterMemory(const Told& told) {
    return told.identity->memoryKiB >= 0 ? Number(static_cast<DWORD>(told.identity->memoryKiB)) : Value();
}

Value PrinterManufacturer(const Told& told) {
    return TextOrUnknown(told.identity->manufacturer, 64);
}

Value PrinterModel(const Told& told) {
    return TextOrUnknown(told.identity->model, 64);
}

Value PrinterLocation(const Told& told) {
    return TextOrUnknown(told.identity->location, 260);
}

Value ServiceTag(const Told& told) {
    return TextOrUnknown(told.identity->serial, 32);
}

// ---- jobs

TvsJobRecord JobRecord(const devices::Job& job) {
    TvsJobRecord record{};
    const Bytes name = Text(job.name, sizeof record.jobName), user = Text(job.user, sizeof record.ownerName);
    memcpy(record.jobName, name.data(), name.size());
    memcpy(record.ownerName, user.data(), user.size());
    record.jobId = static_cast<DWORD>(job.id);
    return record;
}

Value PrinterQueue(const Told& told) {
    if (!told.reading.jobsKnown) return {};
    const SIZE_T count = std::min<SIZE_T>(told.reading.jobs.size(), kQueueEntriesMax);
    Bytes bytes = Words({static_cast<DWORD>(count)});
    for (SIZE_T i = 0; i < count; ++i) {
        const Bytes more = BytesOf(JobRecord(told.reading.jobs[i]));
        bytes.insert(bytes.end(), more.begin(), more.end());
    }
    return bytes;
}

Value PrintingJobInfo(const Told& told) {
    TvsPrintingJobRecord record{};
    if (!told.reading.jobsKnown) return {};
    if (const devices::Job* job = PrintingJob(told.reading)) {
        const TvsJobRecord own = JobRecord(*job);
        memcpy(record.jobName, own.jobName, sizeof record.jobName);
        memcpy(record.ownerName, own.ownerName, sizeof record.ownerName);
        record.jobId = own.jobId;
        record.progress = job->pages > 0 ? static_cast<DWORD>(job->pages) : 0;
    }
    return BytesOf(record);
}

Value JobStatus(const Told& told) {
    if (!told.reading.jobsKnown) return {};
    const devices::Job* job = PrintingJob(told.reading);
    return Number(job ? static_cast<DWORD>(job->state) : 0);
}

struct Row {
    const char* variable;
    Value (*value)(const Told& told);
    bool ofIdentity = false;
    bool onlyIfEmpty = false; // people may have typed something
    bool ofJobs = false;
};
// Jobs before the status, so that a program that is told of the status finds them.
constexpr Row kRows[] = {
    {.variable = names::kPrinterManufacturer, .value = PrinterManufacturer, .ofIdentity = true},
    {.variable = names::kPrinterModel, .value = PrinterModel, .ofIdentity = true},
    {.variable = names::kPrinterLocation, .value = PrinterLocation, .ofIdentity = true, .onlyIfEmpty = true},
    {.variable = names::kServiceTag, .value = ServiceTag, .ofIdentity = true},
    {.variable = names::kPrinterMemory, .value = PrinterMemory, .ofIdentity = true},
    {.variable = names::kPrinterExtConfig, .value = PrinterExtConfig, .ofIdentity = true},
    {.variable = names::kPrinterOptConfig, .value = PrinterOptConfig, .ofIdentity = true},
    {.variable = names::kPrinterQueue, .value = PrinterQueue, .ofJobs = true},
    {.variable = names::kPrintingJobInfo, .value = PrintingJobInfo, .ofJobs = true},
    {.variable = names::kJobStatus, .value = JobStatus, .ofJobs = true},
    {.variable = names::kPageCount, .value = PageCount},
    {.variable = names::kCurrentFeeder, .value = CurrentFeeder},
    {.variable = names::kPrinterBinConfig, .value = PrinterBinConfig},
    {.variable = kSuppliesVariable, .value = Supplies},
    {.variable = names::kPrinterDisplay, .value = PrinterDisplay},
    {.variable = names::kPrinterDisplay2, .value = PrinterDisplay2},
    {.variable = names::kErrPaperState, .value = ErrPaperState},
    {.variable = names::kErrNoPaper, .value = ErrNoPaper},
    {.variable = names::kErrPaperJam, .value = ErrPaperJam},
    {.variable = names::kErrPaperSizeError, .value = ErrPaperSizeError},
    {.variable = names::kErrFormRegistError, .value = ErrFormRegistError},
    {.variable = names::kErrCoverOpen, .value = ErrCoverOpen},
    {.variable = names::kWarmupRemains, .value = WarmupRemains},
    {.variable = names::kPowerSaveEnd, .value = PowerSaveEnd},
    {.variable = names::kPrintingStatus, .value = PrintingStatus},
    {.variable = names::kPrinterStatus2, .value = PrinterStatus2},
    {.variable = names::kPrinterStatus, .value = PrinterStatus},
};

} // namespace

std::vector<DeviceValue> ValuesOf(const Reading& reading, const devices::Identity* identity, bool jobs,
                                  const std::string& origin) {
    const Told told{reading, identity};
    std::vector<DeviceValue> values;
    for (const Row& row : kRows) {
        if ((row.ofIdentity && !identity) || (row.ofJobs && !jobs)) continue;
        const Value value = row.value(told);
        if (row.onlyIfEmpty && !value) continue;
        values.push_back({.variable = row.variable,
                          .bytes = value.value_or(Bytes()),
                          .origin = origin,
                          .known = value.has_value(),
                          .onlyIfEmpty = row.onlyIfEmpty});
    }
    return values;
}

DeviceValue NoAnswerValue(const std::string& origin) {
    return {.variable = names::kPrinterStatus, .bytes = Words({product::kStatusNoAnswer, 0, 0}), .origin = origin};
}

bool IsDeviceVariable(const std::string& variable) {
    return std::any_of(std::begin(kRows), std::end(kRows), [&](const Row& row) { return variable == row.variable; });
}

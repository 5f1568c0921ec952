// The records of printers and jobs, and the names that printers may have. No state.
#include "spooler/records.h"

#include "text/names.h"

#include <sysinfoapi.h>
#include <winspool.h>

namespace oriel {
namespace {

constexpr size_t kLongestName = 220;

struct PrinterTextField {
    LPSTR PRINTER_INFO_2A::*field;
    size_t longest;
    bool required = false;
    const char* otherwise = ""; // when absent or empty
};

// In the order of PrinterText.
constexpr PrinterTextField kPrinterTexts[kPrinterTextCount] = {
    {&PRINTER_INFO_2A::pPrinterName, kLongestName, true},
    {&PRINTER_INFO_2A::pServerName, 259},
    {&PRINTER_INFO_2A::pShareName, 259},
    {&PRINTER_INFO_2A::pPortName, 259, true},
    {&PRINTER_INFO_2A::pDriverName, 259, true},
    {&PRINTER_INFO_2A::pComment, 1023},
    {&PRINTER_INFO_2A::pLocation, 259},
    {&PRINTER_INFO_2A::pPrintProcessor, 259, false, "winprint"},
    {&PRINTER_INFO_2A::pDatatype, 259, false, "RAW"},
};
static_assert(kPrinterTexts[kPrinterName].field == &PRINTER_INFO_2A::pPrinterName);
static_assert(kPrinterTexts[kPrinterDatatype].field == &PRINTER_INFO_2A::pDatatype);

// Texts that are empty for every printer.
constexpr LPSTR PRINTER_INFO_2A::*kEmptyTexts[] = {&PRINTER_INFO_2A::pSepFile, &PRINTER_INFO_2A::pParameters};

bool IsPresent(const char* text) {
    return text != nullptr && *text != '\0';
}

PRINTER_INFO_2A RecordOf(const Printer& printer, StringSpace& strings) {
    PRINTER_INFO_2A record = {};
    for (size_t text = 0; text < kPrinterTextCount; ++text) {
        if (text == kServerName && printer.texts[text].empty()) continue; // absent for a local printer
        record.*kPrinterTexts[text].field = strings.Put(printer.texts[text]);
    }
    for (const auto field : kEmptyTexts)
        record.*field = strings.Put("");
    record.Attributes = printer.attributes;
    record.Status = printer.status;
    record.Priority = 1;
    return record;
}

size_t SizeOf(const Printer& printer) {
    size_t size = sizeof(PRINTER_INFO_2A) + std::size(kEmptyTexts);
    for (size_t text = 0; text < kPrinterTextCount; ++text)
        if (text != kServerName || !printer.texts[text].empty()) size += printer.texts[text].size() + 1;
    return size;
}

} // namespace

bool IsConnection(std::string_view name) {
    return name.starts_with("\\\\");
}

// The name of a connection is \\server\printer. Commas separate the profile entries that name printers.
bool IsPrinterName(std::string_view name) {
    if (name.empty() || name.size() > kLongestName || EndsWithinCharacter(name)) return false;
    for (const char c : name)
        if (c == ',' || static_cast<unsigned char>(c) < ' ') return false;
    if (!IsConnection(name)) return name.front() != '\\';
    const size_t behindServer = name.find('\\', 2);
    return behindServer != std::string_view::npos && behindServer > 2 && behindServer + 1 < name.size();
}

std::string PrinterKeyName(std::string_view name) {
    std::string key;
    for (size_t at = 0; at < name.size();) {
        const size_t length = CharacterLength(name, at);
        if (length == 1 && name[at] == '\\')
            key += ',';
        else
            key += name.substr(at, length);
        at += length;
    }
    return key;
}

DWORD WritePrinterRecords(std::span<const Printer> printers, LPBYTE buffer, DWORD size, LPDWORD needed) {
    return WriteRecords(
        printers, buffer, size, needed, SizeOf,
        [](const Printer& printer, size_t, StringSpace& strings) { return RecordOf(printer, strings); });
}

DWORD ReadPrinterRecord(const PRINTER_INFO_2A& record, Printer* printer) {
    if (record.pDevMode != nullptr || record.pSecurityDescriptor != nullptr || IsPresent(record.pSepFile) ||
        IsPresent(record.pParameters) || record.Priority != 0 || record.DefaultPriority != 0 || record.StartTime != 0 ||
        record.UntilTime != 0 || record.Status != 0 || record.cJobs != 0 || record.AveragePPM != 0)
        return ERROR_INVALID_PARAMETER;
    if (record.pPrinterName == nullptr || !IsPrinterName(record.pPrinterName)) return ERROR_INVALID_PRINTER_NAME;
    for (size_t text = 0; text < kPrinterTextCount; ++text) {
        const char* given = record.*kPrinterTexts[text].field;
        if (kPrinterTexts[text].required && !IsPresent(given)) return ERROR_INVALID_PARAMETER;
        printer->texts[text] = IsPresent(given) ? given : kPrinterTexts[text].otherwise;
        if (printer->texts[text].size() > kPrinterTexts[text].longest) return ERROR_INVALID_PARAMETER;
    }
    const std::string& name = printer->Name();
    std::string& server = printer->texts[kServerName];
    if (!IsConnection(name) && !server.empty()) return ERROR_INVALID_PARAMETER;
    if (IsConnection(name) && server.empty()) server = name.substr(0, name.find('\\', 2));
    const DWORD kind = IsConnection(name) ? PRINTER_ATTRIBUTE_NETWORK : PRINTER_ATTRIBUTE_LOCAL;
    if ((record.Attributes & ~(kind | PRINTER_ATTRIBUTE_SHARED)) != 0) return ERROR_INVALID_PARAMETER;
    printer->attributes = record.Attributes | kind;
    return ERROR_SUCCESS;
}

namespace {

// All zero for a time that a FILETIME cannot hold.
SYSTEMTIME SystemTimeOf(int64_t unixMs) {
    constexpr int64_t kEpochToUnixMs = 11'644'473'600'000;
    constexpr int64_t kTicksPerMs = 10'000;
    SYSTEMTIME time{};
    if (unixMs < -kEpochToUnixMs || unixMs > INT64_MAX / kTicksPerMs - kEpochToUnixMs) return time;
    const auto ticks = static_cast<uint64_t>((unixMs + kEpochToUnixMs) * kTicksPerMs);
    const FILETIME file{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
    FileTimeToSystemTime(&file, &time);
    return time;
}

size_t SizeOf(const Job& job, const std::string& printer) {
    return sizeof(JOB_INFO_1A) + printer.size() + job.machine.size() + job.user.size() + job.document.size() +
           job.datatype.size() + sizeof "\\\\" + 4;
}

JOB_INFO_1A RecordOf(const Job& job, size_t position, const std::string& printer, StringSpace& strings) {
    JOB_INFO_1A record = {};
    record.JobId = job.id;
    record.pPrinterName = strings.Put(printer);
    record.pMachineName = strings.Put("\\\\" + job.machine);
    record.pUserName = strings.Put(job.user);
    record.pDocument = strings.Put(job.document);
    record.pDatatype = strings.Put(job.datatype);
    record.Status = job.status;
    record.Priority = job.priority;
    record.Position = static_cast<DWORD>(position);
    record.TotalPages = job.totalPages;
    record.PagesPrinted = job.pagesPrinted;
    record.Submitted = SystemTimeOf(job.submittedMs);
    return record;
}

} // namespace

DWORD WriteJobRecords(std::span<const Job> jobs, size_t first, const std::string& printer, LPBYTE buffer, DWORD size,
                      LPDWORD needed) {
    return WriteRecords(
        jobs, buffer, size, needed, [&](const Job& job) { return SizeOf(job, printer); },
        [&](const Job& job, size_t at, StringSpace& strings) {
            return RecordOf(job, first + at + 1, printer, strings);
        });
}

} // namespace oriel

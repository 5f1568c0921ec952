#include "spooler/job_record.h"

#include "spooler/record_space.h"

#include <sysinfoapi.h>
#include <winspool.h>

namespace oriel {
namespace {

// All zero for a time that a FILETIME does not have.
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

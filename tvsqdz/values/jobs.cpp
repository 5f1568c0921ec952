// Job reports ("SendingJobInfo", "PrintingJobInfo", "PrintingJobInfo2") with their effect on "PrinterQueue", and
// commands to jobs of the print spooler ("SetJob", "DeleteJobId").
//
// State: the variables. The reports are written outside the database mutex, because nobody reads one to change it.
#include "base/memory.h"
#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/growing_reads.h"
#include "product/guards.h"
#include "product/variable_names.h"
#include "values/port_and_name.h"
#include "values/stored_list.h"

#include <string.h>
#include <tvsqdz_records.h>
#include <winspool.h>

namespace {

using names::kPrintingJobInfo;
using names::kPrintingJobInfo2;
using names::kSendingJobInfo;

// Appends a job; the oldest ones make room for it.
Status AppendToPrinterQueue(ManagerRecord* manager, const TvsJobRecord& job) {
    const DatabaseLock lock(*manager);
    if (!lock.held) return TVS_E_NOT_READY;
    JobQueue queue(manager->printerDatabase, kPrinterQueue);
    // A queue that cannot be read is not written, because it would then have this job only.
    if (const Status status = queue.Load(1); status != TVS_OK) return status;
    while (queue.Count() >= kPrinterQueueLimit)
        queue.Remove(0);
    memcpy(queue.Append(), &job, sizeof job);
    queue.Store();
    return TVS_OK;
}

// From a job record or a printing job record. A text that another process stored may lack its NUL.
template <typename Record>
void TakeNames(const Record& from, TvsPrintingJobRecord* to) {
    memcpy(to->jobName, from.jobName, sizeof to->jobName);
    memcpy(to->ownerName, from.ownerName, sizeof to->ownerName);
    to->jobName[sizeof to->jobName - 1] = '\0';
    to->ownerName[sizeof to->ownerName - 1] = '\0';
}

// Completes a report about the job at the head of the queue, and removes the head when its printing has ended. A job
// behind the head is left in place. TVS_E_MEMORY: the report was not processed.
Status CompareWithPrinterQueue(ManagerRecord* manager, TvsPrintingJobRecord* report) {
    const bool ended = report->jobId == 0;
    TvsPrintingJobRecord current = {}; // stays zero, no job, when it cannot be read
    if (ended || report->progress != 0) {
        DWORD size = 0;
        ReadVariable(manager->printerDatabase, kPrintingJobInfo, &current, sizeof current, &size);
    }
    if (!ended && report->progress != 0) {
        if (current.jobId == report->jobId) TakeNames(current, report);
        return TVS_OK;
    }

    const DatabaseLock lock(*manager);
    if (!lock.held) return TVS_E_NOT_READY;
    JobQueue queue(manager->printerDatabase, kPrinterQueue);
    if (queue.Load() == TVS_E_MEMORY) return TVS_E_MEMORY;
    if (queue.Count() == 0) return TVS_OK; // an unreadable queue counts as empty
    const TvsJobRecord& head = queue.Job(0);
    if (head.jobId != (ended ? current.jobId : report->jobId)) return TVS_OK;
    if (ended) {
        queue.Remove(0);
        queue.Store();
    } else {
        TakeNames(head, report);
    }
    return TVS_OK;
}

} // namespace

int32_t SendingJobInfoWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    TvsJobRecord job;
    if (!TakeRecord(data, size, &job)) return PassOn(Answer::WrongSize);
    WriteVariable(manager->printerDatabase, kSendingJobInfo, &job, sizeof job);
    return job.jobId != 0 ? AppendToPrinterQueue(manager, job) : TVS_OK;
}

int32_t PrintingJobInfoWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    TvsPrintingJobRecord report;
    if (!TakeRecord(data, size, &report)) return PassOn(Answer::WrongSize);
    if (const Status status = CompareWithPrinterQueue(manager, &report); status != TVS_OK) return status;
    WriteVariable(manager->printerDatabase, kPrintingJobInfo, &report, sizeof report);
    return TVS_OK;
}

// One write, so that nobody reads the job of one report with the coverage of another.
int32_t PrintingJobInfo2Write(ManagerRecord* manager, const void* data, uint32_t size) {
    TvsPrintingJobRecord2 report;
    if (!TakeRecord(data, size, &report)) return PassOn(Answer::WrongSize);
    if (const Status status = CompareWithPrinterQueue(manager, &report.job); status != TVS_OK) return status;
    WriteVariable(manager->printerDatabase, kPrintingJobInfo2, &report, sizeof report);
    return TVS_OK;
}

// Commands to jobs. The status says whether the job exists, not what the spooler answered to the command.

namespace {

constexpr uint32_t kPauseCommand = 1;
constexpr uint32_t kResumeCommand = 2;

// The job that is being sent; 0 when there is none or it cannot be read.
uint32_t SendingJob(const ManagerDatabase& database) {
    TvsJobRecord job = {};
    DWORD size = 0;
    ReadVariable(database, kSendingJobInfo, &job, sizeof job, &size);
    return job.jobId;
}

class JobList {
public:
    // False when the jobs cannot be listed.
    bool Load(HANDLE printer) {
        const auto grow = [this](DWORD size) {
            FreeBlock(m_block);
            return m_block = static_cast<BYTE*>(AllocateZeroed(size));
        };
        return ReadJobs(printer, grow, &m_count);
    }
    JobList() = default;
    ~JobList() { FreeBlock(m_block); }
    JobList(const JobList&) = delete;
    JobList& operator=(const JobList&) = delete;

    const JOB_INFO_1A* Find(DWORD id) const {
        const auto* jobs = reinterpret_cast<const JOB_INFO_1A*>(m_block);
        for (DWORD i = 0; i < m_count; ++i)
            if (jobs[i].JobId == id) return &jobs[i];
        return nullptr;
    }

private:
    BYTE* m_block = nullptr; // of the heap
    DWORD m_count = 0;
};

} // namespace

int32_t SetJobWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    uint32_t command = 0;
    if (!TakeRecord(data, size, &command)) return TVS_E_FAULT;
    if (command != kPauseCommand && command != kResumeCommand) return TVS_E_UNKNOWN;
    PrinterNameText name = RefreshedPrinterName(manager);
    const PrinterHandle printer = OpenSpoolerPrinter(name.text);
    if (!printer) return TVS_E_NO_OWNER;
    const uint32_t job = SendingJob(manager->printerDatabase);
    if (job != 0)
        SetJobA(printer.Get(), job, 0, nullptr, command == kPauseCommand ? JOB_CONTROL_PAUSE : JOB_CONTROL_RESUME);
    return TVS_OK;
}

int32_t DeleteJobIdWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    uint32_t id = 0;
    if (!TakeRecord(data, size, &id)) return TVS_E_FAULT;
    PrinterNameText name = RefreshedPrinterName(manager);
    const PrinterHandle printer = OpenSpoolerPrinter(name.text);
    JobList jobs;
    if (!printer || !jobs.Load(printer.Get())) return TVS_E_NO_OWNER;
    const JOB_INFO_1A* job = jobs.Find(id);
    if (job == nullptr || (job->Status & JOB_STATUS_DELETING) != 0) return TVS_E_NOT_NOW;
    SetJobA(printer.Get(), id, 0, nullptr, JOB_CONTROL_CANCEL);
    return TVS_OK;
}

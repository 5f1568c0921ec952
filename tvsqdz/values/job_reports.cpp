// "SendingJobInfo", "PrintingJobInfo" and "PrintingJobInfo2": reports of the job that is sent and of the one that is
// printed, and what they do to "PrinterQueue".
//
// State: the variables. Those of the reports are written outside the database mutex; nobody reads one to change it.
#include "manager/manager_record.h"
#include "manager/variable_handlers.h"
#include "product/guards.h"
#include "values/job_queue.h"

#include <string.h>

namespace {

constexpr char kSendingJobInfo[] = "SendingJobInfo";
constexpr char kPrintingJobInfo[] = "PrintingJobInfo";
constexpr char kPrintingJobInfo2[] = "PrintingJobInfo2";

// A job at the end; the oldest ones make room for it.
Status AppendToPrinterQueue(ManagerRecord* manager, const TvsJobRecord& job) {
    const MutexHold lock(manager->databaseMutex);
    JobQueue queue(manager->printerDatabase, kPrinterQueue);
    // A queue that cannot be read is left alone: written anew it would have this job only.
    if (const Status status = queue.Load(1); status != TVS_OK) return status;
    while (queue.Count() >= kPrinterQueueLimit)
        queue.Remove(0);
    memcpy(queue.Append(), &job, sizeof job);
    queue.Store();
    return TVS_OK;
}

// From a job record or from a printing job record. What another process stored may have no end.
template <typename Record>
void TakeNames(const Record& from, TvsPrintingJobRecord* to) {
    memcpy(to->jobName, from.jobName, sizeof to->jobName);
    memcpy(to->ownerName, from.ownerName, sizeof to->ownerName);
    to->jobName[sizeof to->jobName - 1] = '\0';
    to->ownerName[sizeof to->ownerName - 1] = '\0';
}

// Completes a report of the job at the head of the queue, and takes the head off when its printing has ended. A job
// behind the head stays where it is. TVS_E_MEMORY: the report was not looked at.
Status CompareWithPrinterQueue(ManagerRecord* manager, TvsPrintingJobRecord* report) {
    const bool ended = report->jobId == 0;
    TvsPrintingJobRecord current = {}; // no job, unless it can be read
    if (ended || report->progress != 0) {
        DWORD size = 0;
        ReadVariable(manager->printerDatabase, kPrintingJobInfo, &current, sizeof current, &size);
    }
    if (!ended && report->progress != 0) {
        if (current.jobId == report->jobId) TakeNames(current, report);
        return TVS_OK;
    }

    const MutexHold lock(manager->databaseMutex);
    JobQueue queue(manager->printerDatabase, kPrinterQueue);
    if (queue.Load() == TVS_E_MEMORY) return TVS_E_MEMORY;
    if (queue.Count() == 0) return TVS_OK; // one that cannot be read has none
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

// One write: nobody finds the job of one report with the coverage of another.
int32_t PrintingJobInfo2Write(ManagerRecord* manager, const void* data, uint32_t size) {
    TvsPrintingJobRecord2 report;
    if (!TakeRecord(data, size, &report)) return PassOn(Answer::WrongSize);
    if (const Status status = CompareWithPrinterQueue(manager, &report.job); status != TVS_OK) return status;
    WriteVariable(manager->printerDatabase, kPrintingJobInfo2, &report, sizeof report);
    return TVS_OK;
}

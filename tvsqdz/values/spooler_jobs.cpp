// "SetJob" and "DeleteJobId": commands to jobs of the print spooler. Keeps nothing.
//
// What the spooler answers to a command is not told; whether there is such a job is.
#include "base/heap.h"
#include "manager/variable_handlers.h"
#include "product/guards.h"
#include "values/printer_name.h"

#include <tvsqdz_records.h>
#include <winspool.h>

namespace {

constexpr char kSendingJobInfo[] = "SendingJobInfo";
constexpr uint32_t kPauseCommand = 1;
constexpr uint32_t kResumeCommand = 2;
constexpr DWORD kAllJobs = 0xFFFFFFFF;
// The list can grow between the question for its size and its read; more often than that is not believable.
constexpr int kAttempts = 8;

// The job that is being sent; 0 when there is none, or when that cannot be read.
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
        DWORD needed = 0;
        DWORD size = 0;
        for (int i = 0; i < kAttempts; ++i) {
            if (EnumJobsA(printer, 0, kAllJobs, 1, m_block, size, &needed, &m_count)) return true;
            m_count = 0;
            if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return false;
            FreeBlock(m_block);
            m_block = static_cast<BYTE*>(AllocateZeroed(needed));
            if (m_block == nullptr) return false;
            size = needed;
        }
        return false;
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
    const SpoolerPrinter printer(name.text);
    if (!printer) return TVS_E_NO_OWNER;
    const uint32_t job = SendingJob(manager->printerDatabase);
    if (job != 0)
        SetJobA(printer.handle, job, 0, nullptr, command == kPauseCommand ? JOB_CONTROL_PAUSE : JOB_CONTROL_RESUME);
    return TVS_OK;
}

int32_t DeleteJobIdWrite(ManagerRecord* manager, const void* data, uint32_t size) {
    uint32_t id = 0;
    if (!TakeRecord(data, size, &id)) return TVS_E_FAULT;
    PrinterNameText name = RefreshedPrinterName(manager);
    const SpoolerPrinter printer(name.text);
    JobList jobs;
    if (!printer || !jobs.Load(printer.handle)) return TVS_E_NO_OWNER;
    const JOB_INFO_1A* job = jobs.Find(id);
    if (job == nullptr || (job->Status & JOB_STATUS_DELETING) != 0) return TVS_E_NOT_NOW;
    SetJobA(printer.handle, id, 0, nullptr, JOB_CONTROL_CANCEL);
    return TVS_OK;
}

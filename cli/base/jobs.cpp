// No state.
#include "base/jobs.h"

#include "product/variable_names.h"

#include <tvsqdz.h>

#include <cstring>

PrinterHandle SpoolerPrinterOf(const OpenedPrinter& printer) {
    return OpenInSpooler(RequireAnsi(printer.shownName, "the printer name"));
}

Bytes ValueOf(const OpenedPrinter& printer, const char* name) {
    Reading reading = ReadValue(printer, FindNamed(printer, name, "read"), false);
    if (reading.status != TVS_OK) throw StatusFailure(reading.status, WhatOf("read", name, printer));
    return std::move(reading.value);
}

uint32_t JobIn(const OpenedPrinter& printer, const char* variable) {
    const Bytes value = ValueOf(printer, variable);
    uint32_t job = 0;
    if (value.size() >= sizeof(TvsJobRecord)) std::memcpy(&job, &value[offsetof(TvsJobRecord, jobId)], sizeof job);
    return job;
}

std::optional<SpoolerJob> FindJob(const OpenedPrinter& printer, uint32_t id) {
    const PrinterHandle spooler = SpoolerPrinterOf(printer);
    if (!spooler) return std::nullopt;
    for (SpoolerJob& job : ListJobs(spooler.Get(), printer.shownName))
        if (job.id == id) return std::move(job);
    return std::nullopt;
}

namespace {

void Command(const OpenedPrinter& printer, const char* variable, uint32_t value, const std::string& what) {
    const int32_t status = UpdatePrinterStatusA(printer.manager.Get(), variable, &value, sizeof value);
    if (status == TVS_OK) return;
    Failure failure = StatusFailure(status, what);
    if (status == TVS_E_NOT_NOW) {
        failure.why = "the spooler has no such job, or is already deleting it";
        failure.next = "list the jobs with 'oriel jobs PRINTER'";
    }
    if (status == TVS_E_NO_OWNER) failure.why = "the spooler does not know the printer";
    throw failure;
}

// The library does not pass on the spooler's answer, so look at what became of the job.
[[noreturn]] void ThrowRefused(const std::string& what) {
    throw Failure{Exit::Denied, what, "the spooler refused", "only its owner and an administrator may change a job"};
}

} // namespace

uint32_t PauseSentJob(const OpenedPrinter& printer, bool pause) {
    const std::string what = std::string("cannot ") + (pause ? "pause" : "resume") + " \"" + printer.shownName + "\"";
    const uint32_t id = JobIn(printer, names::kSendingJobInfo);
    if (id == 0) throw Failure{Exit::False, what, "no job is being sent to the printer", "see 'oriel jobs PRINTER'"};
    Command(printer, names::kSetJob, pause ? 1 : 2, what);
    const std::optional<SpoolerJob> job = FindJob(printer, id);
    if (!job) throw Failure{Exit::False, what, "job " + std::to_string(id) + " is no longer in the spooler", ""};
    if (((job->status & JOB_STATUS_PAUSED) != 0) != pause) ThrowRefused(what);
    return id;
}

void CancelJob(const OpenedPrinter& printer, uint32_t id) {
    const std::string what = "cannot cancel job " + std::to_string(id) + " of \"" + printer.shownName + "\"";
    Command(printer, names::kDeleteJobId, id, what);
    constexpr uint32_t kGoing = JOB_STATUS_DELETING | JOB_STATUS_DELETED;
    if (const std::optional<SpoolerJob> job = FindJob(printer, id); job && (job->status & kGoing) == 0)
        ThrowRefused(what);
}

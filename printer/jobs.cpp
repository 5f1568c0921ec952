// The thread that prints the spooler's jobs. It reports through a manager of the library, which maintains
// "PrinterQueue"; it has one only while there are jobs. State: the records of thread and jobs.
#include "jobs.h"

#include "device.h"
#include "spool.h"

#include "product/growing_reads.h"
#include "product/log.h"
#include "product/variable_names.h"

#include <tvsqdz.h>

#include <algorithm>
#include <deque>
#include <set>
#include <string.h>

namespace {

constexpr SIZE_T kStackSize = 256 * 1024;
constexpr DWORD kEndMs = 3000;
// A job may vanish without a notification, with the process that spooled it, and a service that is gone comes back.
constexpr DWORD kLookMs = 2000;
// Needs only a product that is up. It does not own the printer, start the agent or repair the default printer.
constexpr DWORD kClientKind = 9;
constexpr DWORD kBetweenLooksMs = 200;   // at the jobs of a print server, which may change many times a second
constexpr SIZE_T kInPrinterMax = 4;      // jobs that were sent and are not printed yet
constexpr SIZE_T kSpoolerQueueMax = 500; // entries

// "JobStatus" of the job that is being printed: the numbers of RFC 8011 for the states of a job; 0: there is none.
constexpr DWORD kNoJob = 0;
constexpr DWORD kJobProcessing = 5;
constexpr DWORD kJobStopped = 6;

// A job on its way.
struct Sent {
    DWORD id = 0;
    DWORD pages = 0;
    DWORD out = 0; // of them
    std::string name;
    std::string owner;
    bool begun = false;     // its first report was made
    bool cancelled = false; // it is not in the spool any more
    bool paused = false;
};

struct Taker {
    JobTaker& jobs;
    HANDLE printer = nullptr;
    HANDLE changes = INVALID_HANDLE_VALUE; // of its jobs
    TvsManager manager = 0;
    bool tidied = false; // the reports of a predecessor that was killed are cleared
    bool failed = false; // a report failed: the service is new or gone
    bool blind = false;  // the spool could not be looked into
    DWORD services = 0;  // of the record of the thread, when the manager was opened
    std::vector<SpooledJob> spooled{};
    std::optional<Sent> sending{};
    std::deque<Sent> inPrinter{}; // the first of them is being printed
    DWORD sendDue = 0;            // tick counts
    DWORD pageDue = 0;
    std::set<DWORD> printed{};           // and could not be removed from the spool
    std::set<DWORD> refused{};           // this user may not read them
    std::vector<BYTE> spoolerQueue{};    // as it was reported last; empty: not yet
    std::optional<DWORD> jobStatus = {}; // the same
};

bool HasPassed(DWORD due) {
    return static_cast<LONG>(GetTickCount() - due) >= 0;
}

// ---- reports

void Report(Taker& taker, const char* variable, const void* value, SIZE_T size) {
    if (taker.failed) return;
    taker.failed = UpdatePrinterStatusA(taker.manager, variable, value, static_cast<uint32_t>(size)) != TVS_OK;
}

// Cut at a whole character.
template <SIZE_T size>
void SetText(char (&field)[size], const std::string& text) {
    SIZE_T length = 0;
    while (length < text.size()) {
        const SIZE_T character = IsDBCSLeadByte(static_cast<BYTE>(text[length])) ? 2 : 1;
        if (length + character >= size || length + character > text.size()) break;
        length += character;
    }
    memcpy(field, text.data(), length);
}

TvsJobRecord RecordOf(const std::string& name, const std::string& owner, DWORD id) {
    TvsJobRecord record{};
    SetText(record.jobName, name);
    SetText(record.ownerName, owner);
    record.jobId = id;
    return record;
}

// A job begins to be sent, which also puts it into "PrinterQueue"; null: it was sent.
void ReportSending(Taker& taker, const Sent* job) {
    const TvsJobRecord record = job ? RecordOf(job->name, job->owner, job->id) : TvsJobRecord{};
    Report(taker, names::kSendingJobInfo, &record, sizeof record);
}

// So many pages are out; null: printing has ended.
void ReportPrinting(Taker& taker, const Sent* job) {
    TvsPrintingJobRecord2 record{};
    if (job) {
        SetText(record.job.jobName, job->name);
        SetText(record.job.ownerName, job->owner);
        record.job.jobId = job->id;
        record.job.progress = job->out;
    }
    Report(taker, names::kPrintingJobInfo2, &record, sizeof record);
}

void ReportJobStatus(Taker& taker, DWORD status) {
    if (taker.jobStatus == status) return;
    taker.jobStatus = status;
    Report(taker, names::kJobStatus, &status, sizeof status);
}

bool IsOnItsWay(const Taker& taker, DWORD id) {
    const auto isJob = [id](const Sent& job) { return job.id == id; };
    return (taker.sending && taker.sending->id == id) || taker.printed.count(id) != 0 ||
           std::any_of(taker.inPrinter.begin(), taker.inPrinter.end(), isJob);
}

// The jobs that were not sent yet.
void ReportSpoolerQueue(Taker& taker) {
    std::vector<TvsJobRecord> entries;
    for (const SpooledJob& job : taker.spooled)
        if (!IsOnItsWay(taker, job.id) && entries.size() < kSpoolerQueueMax)
            entries.push_back(RecordOf(job.name, job.owner, job.id));
    const auto count = static_cast<DWORD>(entries.size());
    std::vector<BYTE> queue(TVS_JOB_QUEUE_SIZE(entries.size()));
    memcpy(queue.data(), &count, sizeof count);
    if (count != 0) memcpy(&queue[sizeof count], entries.data(), queue.size() - sizeof count);
    if (queue == taker.spoolerQueue) return;
    Report(taker, names::kSpoolerQueue, queue.data(), queue.size());
    taker.spoolerQueue = std::move(queue);
}

// Nothing is sent or printed. What is in the printer's queue then is of jobs that are still in the spool.
void ReportNothing(Taker& taker) {
    constexpr DWORD kEmptyQueue = 0;
    ReportSending(taker, nullptr);
    ReportPrinting(taker, nullptr);
    Report(taker, names::kPrinterQueue, &kEmptyQueue, sizeof kEmptyQueue);
    ReportJobStatus(taker, kNoJob);
}

// To a service that has none of it.
void ReportAnew(Taker& taker) {
    constexpr DWORD kEmptyQueue = 0;
    Report(taker, names::kPrinterQueue, &kEmptyQueue, sizeof kEmptyQueue);
    for (const Sent& job : taker.inPrinter)
        ReportSending(taker, &job);
    ReportSending(taker, taker.sending ? &*taker.sending : nullptr);
    if (!taker.inPrinter.empty() && taker.inPrinter.front().begun) ReportPrinting(taker, &taker.inPrinter.front());
}

template <typename Record>
DWORD JobIn(const Taker& taker, const char* variable, Record record, uint32_t Record::*id) {
    uint32_t size = 0;
    if (GetPrinterStatusA(taker.manager, variable, &record, sizeof record, &size) != TVS_OK) return 0;
    return record.*id;
}

void CloseOwnManager(Taker& taker) {
    if (taker.manager) CloseManager(taker.manager);
    taker.manager = 0;
}

// False: there is no manager.
bool OpenManager(Taker& taker) {
    const DWORD services = taker.jobs.services;
    if (services != taker.services) CloseOwnManager(taker);
    taker.services = services;
    if (taker.manager) return true;
    if (OpenManagerExA(taker.jobs.printer.c_str(), nullptr, kClientKind, &taker.manager) != TVS_OK) {
        taker.manager = 0;
        return false;
    }
    taker.spoolerQueue.clear();
    taker.jobStatus.reset();
    if (taker.jobs.duty == JobDuty::Follow && !taker.inPrinter.empty()) {
        ReportNothing(taker);
        taker.inPrinter.clear(); // it is found again
    }
    if (taker.sending || !taker.inPrinter.empty()) ReportAnew(taker);
    if (taker.tidied) return true;
    taker.tidied = true;
    if (JobIn(taker, names::kSendingJobInfo, TvsJobRecord{}, &TvsJobRecord::jobId) != 0 ||
        JobIn(taker, names::kPrintingJobInfo, TvsPrintingJobRecord{}, &TvsPrintingJobRecord::jobId) != 0)
        ReportNothing(taker);
    return true;
}

// ---- jobs

// False when the printer has gone.
bool LookIntoSpool(Taker& taker) {
    if (taker.changes != INVALID_HANDLE_VALUE)
        FindNextPrinterChangeNotification(taker.changes, nullptr, nullptr, nullptr);
    // Only now: what happens from here on is told again.
    if (taker.jobs.duty == JobDuty::Follow) {
        taker.jobs.serverNews = true;
        SetEvent(taker.jobs.serverTold);
    }
    // A print server has the job that it prints among the first.
    const DWORD most = taker.jobs.duty == JobDuty::Follow ? DWORD{kSpoolerQueueMax + kInPrinterMax} : kAllJobs;
    std::optional<std::vector<SpooledJob>> spooled = ListSpooledJobs(taker.printer, most);
    taker.blind = !spooled;
    // A print server may get the printer back.
    if (!spooled) return GetLastError() != ERROR_PRINTER_DELETED || taker.jobs.duty == JobDuty::Follow;
    taker.spooled = std::move(*spooled);
    const auto find = [&](DWORD id) {
        return std::find_if(taker.spooled.begin(), taker.spooled.end(),
                            [id](const SpooledJob& job) { return job.id == id; });
    };
    const auto note = [&](Sent& job) {
        const auto found = find(job.id);
        job.cancelled = job.cancelled || found == taker.spooled.end() || (found->status & JOB_STATUS_DELETING) != 0;
        job.paused = !job.cancelled && (found->status & JOB_STATUS_PAUSED) != 0;
    };
    if (taker.sending) note(*taker.sending);
    std::for_each(taker.inPrinter.begin(), taker.inPrinter.end(), note);
    for (std::set<DWORD>* known : {&taker.printed, &taker.refused})
        std::erase_if(*known, [&](DWORD id) { return find(id) == taker.spooled.end(); });
    return true;
}

void SendNext(Taker& taker, DWORD pageMs) {
    constexpr DWORD kNotReady = JOB_STATUS_PAUSED | JOB_STATUS_DELETING | JOB_STATUS_SPOOLING;
    for (const SpooledJob& job : taker.spooled) {
        if ((job.status & kNotReady) != 0 || IsOnItsWay(taker, job.id) || taker.refused.count(job.id) != 0) continue;
        const std::optional<DWORD> pages = PagesOfJob(taker.jobs.printer, job.id);
        if (!pages) {
            taker.refused.insert(job.id);
            product::Log(product::LogLevel::Warning,
                         taker.jobs.printer + ": job " + std::to_string(job.id) +
                             " is another user's and stays in the spool: only root prints it");
            continue;
        }
        taker.sending = Sent{.id = job.id, .pages = *pages, .name = job.name, .owner = job.owner};
        taker.sendDue = GetTickCount() + pageMs;
        ReportSending(taker, &*taker.sending);
        return;
    }
}

void Send(Taker& taker, DWORD pageMs) {
    if (taker.sending) {
        const bool held = pageMs == kHoldJobs || taker.sending->paused;
        if (!taker.sending->cancelled && (held || !HasPassed(taker.sendDue))) return;
        ReportSending(taker, nullptr);
        // A cancelled job too: it leaves "PrinterQueue" only when it would be printed.
        taker.inPrinter.push_back(std::move(*taker.sending));
        taker.sending.reset();
    }
    if (taker.inPrinter.size() < kInPrinterMax && pageMs != kHoldJobs) SendNext(taker, pageMs);
}

void EndPrinting(Taker& taker) {
    const Sent job = std::move(taker.inPrinter.front());
    taker.inPrinter.pop_front();
    ReportPrinting(taker, nullptr);
    ReportJobStatus(taker, kNoJob);
    if (!job.cancelled && !SetJobA(taker.printer, job.id, 0, nullptr, JOB_CONTROL_DELETE)) taker.printed.insert(job.id);
}

void Print(Taker& taker, DWORD pageMs) {
    while (!taker.inPrinter.empty() && !taker.failed) {
        Sent& job = taker.inPrinter.front();
        const bool held = pageMs == kHoldJobs || job.paused;
        if (!job.begun) {
            job.begun = true;
            ReportPrinting(taker, &job);
            taker.pageDue = GetTickCount() + (held ? 0 : pageMs);
        }
        if (!job.cancelled) {
            ReportJobStatus(taker, held ? kJobStopped : kJobProcessing);
            if (held || !HasPassed(taker.pageDue)) return;
            taker.pageDue = GetTickCount() + pageMs;
            ++job.out;
            ReportPrinting(taker, &job);
            ++taker.jobs.pages;
            SetEvent(taker.jobs.pagesOut);
            if (job.out < job.pages) return;
        }
        EndPrinting(taker);
    }
}

// The job that the print server sends is at the printer too, as far as it tells.
void Follow(Taker& taker) {
    const auto now = std::find_if(taker.spooled.begin(), taker.spooled.end(),
                                  [](const SpooledJob& job) { return (job.status & JOB_STATUS_PRINTING) != 0; });
    const bool prints = now != taker.spooled.end();
    if (!taker.inPrinter.empty() && (!prints || taker.inPrinter.front().id != now->id)) {
        taker.inPrinter.clear();
        ReportSending(taker, nullptr);
        ReportPrinting(taker, nullptr);
        ReportJobStatus(taker, kNoJob);
    }
    if (!prints) return;
    const bool begins = taker.inPrinter.empty();
    if (begins) {
        taker.inPrinter.push_back({.id = now->id, .name = now->name, .owner = now->owner, .begun = true});
        ReportSending(taker, &taker.inPrinter.front());
        ReportJobStatus(taker, kJobProcessing);
    }
    if (!begins && taker.inPrinter.front().out == now->pages) return;
    taker.inPrinter.front().out = now->pages;
    ReportPrinting(taker, &taker.inPrinter.front());
}

// ---- the thread

bool HasWork(const Taker& taker) {
    return taker.sending || !taker.inPrinter.empty() ||
           std::any_of(taker.spooled.begin(), taker.spooled.end(), [&](const SpooledJob& job) {
               return taker.printed.count(job.id) == 0 && taker.refused.count(job.id) == 0;
           });
}

DWORD Until(DWORD due) {
    return HasPassed(due) ? 0 : due - GetTickCount();
}

// How long to wait unless something happens.
DWORD Pause(const Taker& taker, DWORD pageMs) {
    if (!taker.manager) return taker.tidied && taker.spooled.empty() ? INFINITE : kLookMs;
    DWORD pause = kLookMs;
    if (taker.jobs.duty == JobDuty::Follow && !taker.blind) return INFINITE; // the server tells
    if (pageMs == kHoldJobs) return pause;
    if (taker.sending && !taker.sending->paused) pause = std::min(pause, Until(taker.sendDue));
    if (!taker.inPrinter.empty() && !taker.inPrinter.front().paused) pause = std::min(pause, Until(taker.pageDue));
    return pause;
}

// The error when there is nothing to wait for.
DWORD BeginChanges(Taker& taker) {
    if (taker.changes != INVALID_HANDLE_VALUE) return ERROR_SUCCESS;
    const DWORD printer = taker.jobs.duty == JobDuty::Follow ? PRINTER_CHANGE_SET_PRINTER : 0;
    taker.changes = FindFirstPrinterChangeNotification(taker.printer, PRINTER_CHANGE_JOB | printer, 0, nullptr);
    return taker.changes != INVALID_HANDLE_VALUE ? ERROR_SUCCESS : GetLastError();
}

// False: stop was set.
bool WaitForChange(Taker& taker, DWORD pause) {
    const HANDLE handles[] = {taker.jobs.stop, taker.jobs.paceChanged, taker.changes};
    const DWORD count = taker.failed ? 1 : taker.changes != INVALID_HANDLE_VALUE ? 3 : 2;
    const DWORD wait = WaitForMultipleObjects(count, handles, FALSE, pause);
    if (wait == WAIT_OBJECT_0 || wait == WAIT_FAILED) return false;
    if (taker.jobs.duty != JobDuty::Follow || wait == WAIT_OBJECT_0 + 1) return true;
    return WaitForSingleObject(taker.jobs.stop, kBetweenLooksMs) == WAIT_TIMEOUT;
}

void TakeUntilStopped(Taker& taker) {
    for (;;) {
        const DWORD changes = BeginChanges(taker);
        if (!LookIntoSpool(taker)) return;
        const DWORD pageMs = taker.jobs.pageMs;
        const bool work = HasWork(taker);
        if ((work || !taker.tidied) && OpenManager(taker)) {
            if (taker.jobs.duty == JobDuty::Follow) {
                Follow(taker);
            } else {
                Send(taker, pageMs);
                Print(taker, pageMs);
            }
        } else if (taker.manager && taker.jobs.duty == JobDuty::Follow) {
            Follow(taker);
        }
        if (taker.manager) ReportSpoolerQueue(taker);
        if (taker.failed || !HasWork(taker)) CloseOwnManager(taker);
        DWORD pause = taker.failed ? kLookMs : Pause(taker, pageMs);
        if (changes != ERROR_SUCCESS) pause = std::min(pause, kLookMs);
        const bool goOn = WaitForChange(taker, pause);
        taker.failed = false;
        if (!goOn) return;
    }
}

// Null: the spooler has no such printer, or stop was set.
HANDLE OpenSpoolerPrinter(const JobTaker& jobs) {
    std::string name = jobs.printer; // the call's text is not const
    HANDLE printer = nullptr;
    while (!OpenPrinterA(name.data(), &printer, nullptr)) {
        if (GetLastError() == ERROR_INVALID_PRINTER_NAME && jobs.duty != JobDuty::Follow) return nullptr;
        if (WaitForSingleObject(jobs.stop, kLookMs) != WAIT_TIMEOUT) return nullptr;
    }
    return printer;
}

DWORD WINAPI TakeJobs(LPVOID parameter) {
    Taker taker{.jobs = *static_cast<JobTaker*>(parameter)};
    taker.tidied = taker.jobs.duty == JobDuty::Report; // another reports what is printed
    taker.printer = SpoolIsOurs() ? OpenSpoolerPrinter(taker.jobs) : nullptr;
    if (!taker.printer) return 0;
    const DWORD changes = BeginChanges(taker);
    if (changes == ERROR_NOT_SUPPORTED && taker.jobs.duty == JobDuty::Follow)
        product::Log(product::LogLevel::Warning,
                     taker.jobs.printer +
                         ": the print server tells no changes, since the program oriel-events is not in its "
                         "folder of notifiers; it is asked every 2 s");
    if (changes != ERROR_NOT_SUPPORTED || taker.jobs.duty == JobDuty::Follow) TakeUntilStopped(taker);
    if (taker.manager && (taker.sending || !taker.inPrinter.empty())) ReportNothing(taker);
    CloseOwnManager(taker);
    if (taker.changes != INVALID_HANDLE_VALUE) FindClosePrinterChangeNotification(taker.changes);
    ClosePrinter(taker.printer);
    return 0;
}

} // namespace

JobTaker* StartJobs(const std::string& printer, HANDLE stop, JobDuty duty) {
    auto* jobs = new JobTaker;
    jobs->printer = printer;
    jobs->duty = duty;
    jobs->stop = stop;
    jobs->paceChanged = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    jobs->pagesOut = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    jobs->serverTold = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (jobs->paceChanged && jobs->pagesOut && jobs->serverTold)
        jobs->thread = CreateThread(nullptr, kStackSize, TakeJobs, jobs, 0, nullptr);
    return jobs->thread ? jobs : nullptr; // without one the process ends
}

void SetPace(JobTaker& jobs, DWORD pageMs) {
    if (jobs.pageMs.exchange(pageMs) != pageMs) SetEvent(jobs.paceChanged);
}

void ReportAgain(JobTaker& jobs) {
    ++jobs.services;
    SetEvent(jobs.paceChanged);
}

DWORD TakePagesOut(JobTaker& jobs) {
    return jobs.pages.exchange(0);
}

bool TakeServerNews(JobTaker& jobs) {
    return jobs.serverNews.exchange(false);
}

// What is left is for the thread, which may be in the midst of anything.
void EndJobs(JobTaker* jobs) {
    if (WaitForSingleObject(jobs->thread, kEndMs) != WAIT_OBJECT_0) return;
    for (const HANDLE handle : {jobs->thread, jobs->paceChanged, jobs->pagesOut, jobs->serverTold})
        CloseHandle(handle);
    delete jobs;
}

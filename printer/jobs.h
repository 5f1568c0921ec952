// Prints the spooled jobs of the printer. A thread takes one after the other, reports it by the job variables, prints
// its pages, and removes it from the spool. State: the record of the thread.
//
// A job is sent (for as long as a page takes), then waits in the printer, then is printed. It stays in the spool until
// its last page. So it can be paused and cancelled at any time, and the next printer side prints it from the beginning
// if this one is killed. Only jobs whose documents this user may read are taken: the user's own, and all for root. A
// print server, and any spooler on Windows, sends its jobs itself: the thread then only reports what becomes of them,
// or ends at once.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

enum class JobDuty {
    Print,  // the jobs of the embedded spool
    Report, // those that wait there
    Follow, // what a print server does with the jobs of its printer
};

struct JobTaker {
    std::string printer{};
    JobDuty duty = JobDuty::Print;
    HANDLE stop = nullptr;                // event of the caller
    HANDLE paceChanged = nullptr;         // event, auto-reset
    HANDLE pagesOut = nullptr;            // event, auto-reset: TakePagesOut is due
    HANDLE serverTold = nullptr;          // event, auto-reset: TakeServerNews is due
    std::atomic<DWORD> pageMs = INFINITE; // kHoldJobs: no page is printed
    std::atomic<DWORD> pages = 0;
    std::atomic<bool> serverNews = false;
    std::atomic<DWORD> services = 0; // how often ReportAgain was called
    HANDLE thread = nullptr;
};

// Null: it cannot start, and the last error says why. EndJobs frees the record.
JobTaker* StartJobs(const std::string& printer, HANDLE stop, JobDuty duty);
void SetPace(JobTaker& jobs, DWORD pageMs);
// The printer side is connected again, maybe with a new service, which does not know the jobs in progress.
void ReportAgain(JobTaker& jobs);
// How many pages were printed since the last call.
DWORD TakePagesOut(JobTaker& jobs);
// Whether the print server has told of a change of the printer or its jobs since the last call.
bool TakeServerNews(JobTaker& jobs);
// After stop was set: waits for the thread, which another process may block, for 3 s at most. A thread that is still
// blocked keeps its record.
void EndJobs(JobTaker* jobs);

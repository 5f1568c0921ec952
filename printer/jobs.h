// The jobs of the printer's spooler, printed: a thread takes one after the other, reports it by the job variables, has
// its pages come out, and removes it from the spool when it is done.
//
// A job is sent (for as long as a page takes), then it waits in the printer, then its pages come out. It stays in the
// spool until its last page, so that it can be paused and cancelled at any time, and is printed anew by the next
// printer side if this one dies. Only jobs whose documents this user may read are taken: one's own, and all as root. A
// printer of a print server, and any printer on Windows, has its jobs sent by its own spooler: the thread then ends at
// once.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

struct JobTaker {
    std::string printer{};
    HANDLE stop = nullptr;                // event, of who starts it
    HANDLE paceChanged = nullptr;         // event, reset by who waited for it
    HANDLE pagesOut = nullptr;            // the same: TakePagesOut is due
    std::atomic<DWORD> pageMs = INFINITE; // kHoldJobs: no page comes out
    std::atomic<DWORD> pages = 0;
    std::atomic<DWORD> services = 0; // how often TellOfService was called
    HANDLE thread = nullptr;
};

// Null when it cannot: the last error tells.
JobTaker* StartJobs(const std::string& printer, HANDLE stop);
void SetPace(JobTaker& jobs, DWORD pageMs);
// The service is connected anew, and may be another one, which knows nothing of the jobs on their way.
void TellOfService(JobTaker& jobs);
// How many since the last call.
DWORD TakePagesOut(JobTaker& jobs);
// Once stop is set: waits for the thread, which another process may hold up, for 3 s at most. It is then left behind
// with its record, since the process ends.
void EndJobs(JobTaker* jobs);

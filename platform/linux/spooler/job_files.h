// Jobs of the embedded spool: two files each in <state directory>/jobs, a folder into which every user may put files.
//
// "<number>" is the head of the job, readable by all; "<number>.data" is its document, readable by its user only. The
// owner of the files owns the job: the kernel vouches for that, and lets nobody but the owner and root change or remove
// it. While a document is spooled its head is locked for writing, which distinguishes a growing job from one whose
// process died. Files of others are checked before use; what is not a job is skipped.
//
// A user may have 1,000 jobs and 4 GiB in the spool. What nobody finishes is removed by its user's next document, and
// by root when it looks at the jobs.
#pragma once

#include "base/descriptor.h"
#include "spooler/back_end.h"

namespace oriel {

// Creates the folder, if this user may.
DWORD MakeJobsFolder();

// Removes what is left of jobs, and what is none: root that of everybody, others theirs.
void TidyJobs();

// The complete and the spooling jobs of a printer, by number; of each user at most 1,000 in all.
DWORD ListJobFiles(int64_t printer, std::vector<Job>* jobs);
DWORD ChangeJobFile(int64_t printer, DWORD job, JobCommand command);
// Opens the document of a complete job for reading. ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED.
DWORD OpenJobDocument(int64_t printer, DWORD job, Descriptor* document);
// Removes the jobs of a printer that is deleted. Jobs that this user may not remove stay, without a printer.
void RemoveJobsOf(int64_t printer);

// A job that this process spools. A fork child shares the lock until it ends or executes another program.
struct SpooledDocument {
    DWORD job = 0;     // 0: none
    uint64_t room = 0; // bytes that its user may still spool
    Descriptor head;
    Descriptor data;
};

struct DocumentTexts {
    std::string_view name;     // up to 1,023 bytes
    std::string_view datatype; // up to 63
};

// ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_QUOTA, ERROR_INVALID_PARAMETER (a text is too long).
DWORD StartDocument(int64_t printer, const DocumentTexts& texts, SpooledDocument* document);
// *written is set on failure too. ERROR_PRINT_CANCELLED, ERROR_DISK_FULL, ERROR_NOT_ENOUGH_QUOTA.
DWORD AppendToDocument(SpooledDocument& document, const void* bytes, DWORD size, DWORD* written);
// Completes the job, or drops it: cancelled (ERROR_PRINT_CANCELLED) or no longer wanted. The document is then empty.
DWORD EndDocument(SpooledDocument& document);
void DropDocument(SpooledDocument& document);

} // namespace oriel

// Jobs of the embedded spool: two files for each in <state directory>/jobs, a folder that every user may put files
// into.
//
// "<number>" is the job's head, which all may read, "<number>.data" its document, which only its user may. The file's
// owner is the job's: the kernel says whose it is, and lets nobody else change or remove it but root. While a document
// is spooled its head is locked (flock), so that a job whose process died is told from one that still grows. Others'
// files are looked at before they are used; what is no job is passed over.
#pragma once

#include "base/descriptor.h"
#include "spooler/back_end.h"

namespace oriel {

// Makes the folder, where this user may.
DWORD MakeJobsFolder();

// The complete jobs of a printer and those still spooled, by number; at most 10,000.
DWORD ListJobFiles(int64_t printer, std::vector<Job>* jobs);
DWORD ChangeJobFile(int64_t printer, DWORD job, JobCommand command);
// The document of a complete job, for reading. ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED.
DWORD OpenJobDocument(int64_t printer, DWORD job, Descriptor* document);
// The jobs of a printer that goes; those that this user may not remove stay, and are nobody's.
void RemoveJobsOf(int64_t printer);

// A job that this process spools. A fork child shares the lock until it ends or runs another program.
struct SpooledDocument {
    DWORD job = 0; // 0: none
    Descriptor head;
    Descriptor data;
};

struct DocumentTexts {
    std::string_view name;     // up to 1,023 bytes
    std::string_view datatype; // up to 63
};

// ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_QUOTA, ERROR_INVALID_PARAMETER (a text is too long).
DWORD StartDocument(int64_t printer, const DocumentTexts& texts, SpooledDocument* document);
// *written: also on failure. ERROR_PRINT_CANCELLED, ERROR_DISK_FULL.
DWORD AppendToDocument(const SpooledDocument& document, const void* bytes, DWORD size, DWORD* written);
// Complete, or dropped: cancelled (ERROR_PRINT_CANCELLED) or not wanted any more. The document is then none.
DWORD EndDocument(SpooledDocument& document);
void DropDocument(SpooledDocument& document);

} // namespace oriel

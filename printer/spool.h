// The print spooler, seen by who prints its jobs. Texts are in the ANSI code page.
#pragma once

#include <windows.h>
#include <winspool.h>

#include <optional>
#include <string>
#include <vector>

// Whether jobs of the spool wait for a printer side to print them.
bool SpoolIsOurs();

struct SpooledJob {
    DWORD id = 0;
    DWORD status = 0; // JOB_STATUS_*
    std::string name;
    std::string owner;
};

// In the order of the queue; nothing when they cannot be listed.
std::optional<std::vector<SpooledJob>> ListSpooledJobs(HANDLE printer);

// How many pages a job's document has, 1 to 10,000; nothing when this user may not read it. A PDF document has those
// that are written out in it, PostScript as many as its comments say; anything else is text, 66 lines a page or up to a
// form feed. Of a document only the first 32 MiB count.
std::optional<DWORD> PagesOfJob(const std::string& printer, DWORD job);
DWORD PagesOfDocument(const std::string& document);

// The print spooler, as a program uses it that prints its jobs. Texts are in the ANSI code page. No state.
#pragma once

#include <windows.h>
#include <winspool.h>

#include <optional>
#include <string>
#include <vector>

// Whether the printer side has to print the spooled jobs, rather than the system's spooler.
bool SpoolIsOurs();

struct SpooledJob {
    DWORD id = 0;
    DWORD status = 0; // JOB_STATUS_*
    DWORD pages = 0;  // that are printed
    std::string name;
    std::string owner;
};

// The first ones in the order of the queue; nothing when they cannot be listed.
std::optional<std::vector<SpooledJob>> ListSpooledJobs(HANDLE printer, DWORD most);

// How many pages a job's document has, 1 to 10,000; nothing when this user may not read it. The pages of a PDF document
// are counted, those of PostScript are what its comments say. Everything else is text, with 66 lines a page or a form
// feed between pages. Only the first 32 MiB count.
std::optional<DWORD> PagesOfJob(const std::string& printer, DWORD job);
DWORD PagesOfDocument(const std::string& document);

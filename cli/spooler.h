// Jobs of the print spooler.
#pragma once

#include "handles.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct SpoolerJob {
    uint32_t id = 0;
    std::string document; // texts: ANSI
    std::string user;
    std::string dataType;
    uint32_t status = 0; // JOB_STATUS_*
    SYSTEMTIME submitted{};
};

// None where the spooler does not know the printer. Throws Failure when it cannot be asked.
PrinterHandle OpenInSpooler(const std::string& name);
// In the order of the queue. Throws Failure.
std::vector<SpoolerJob> ListJobs(HANDLE printer, const std::string& shownName);
// "paused, printing"; "waiting" when there is nothing to tell.
std::string JobStatusText(uint32_t status);

// Spools a document as one job, and answers its number. held: it is paused before it is complete. Throws Failure.
uint32_t SpoolDocument(HANDLE printer, const std::string& title, std::string_view content, bool held,
                       const std::string& what);

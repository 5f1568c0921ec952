// Calls of the print spooler and its jobs. No state.
#pragma once

#include "base/handles.h"
#include "base/text.h"

#include "product/growing_reads.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What EnumPrintersA and calls like it list. call: BOOL(BYTE* buffer, DWORD size, DWORD* needed). Nothing on failure;
// the last error has the reason.
template <typename Call>
std::optional<Bytes> SpoolerRecords(Call call) {
    Bytes buffer;
    const auto grow = [&](DWORD size) {
        buffer.resize(size);
        return buffer.data();
    };
    return ReadSpoolerRecords(grow, call) ? std::optional(std::move(buffer)) : std::nullopt;
}

// A text of such a record.
inline std::string OrEmpty(const char* text) {
    return text ? text : "";
}

struct SpoolerJob {
    uint32_t id = 0;
    std::string document; // texts: ANSI
    std::string user;
    std::string dataType;
    uint32_t status = 0; // JOB_STATUS_*
    SYSTEMTIME submitted{};
};

// None when the spooler does not know the printer. Throws Failure when the spooler cannot be asked.
PrinterHandle OpenInSpooler(const std::string& name);
// In the order of the queue. Throws Failure.
std::vector<SpoolerJob> ListJobs(HANDLE printer, const std::string& shownName);
// "paused, printing"; "waiting" without any status bit.
std::string JobStatusText(uint32_t status);

// Spools a document as one job and returns its number. held: pauses the job before it can print. Throws Failure.
uint32_t SpoolDocument(HANDLE printer, const std::string& title, std::string_view content, bool held,
                       const std::string& what);

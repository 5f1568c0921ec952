// Jobs of the print spooler.
#pragma once

#include "handles.h"
#include "text.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Calls EnumPrintersA and those like it until the buffer, which can have grown too small since the question for its
// size, holds what they list. call: BOOL(LPBYTE buffer, DWORD size, LPDWORD needed). Nothing: the last error tells.
template <typename Call>
std::optional<Bytes> SpoolerRecords(Call call) {
    constexpr int kAttempts = 8; // more often is not believable
    Bytes buffer;
    DWORD needed = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (call(buffer.data(), static_cast<DWORD>(buffer.size()), &needed)) return buffer;
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) break;
        buffer.resize(needed);
    }
    return std::nullopt;
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

// None where the spooler does not know the printer. Throws Failure when it cannot be asked.
PrinterHandle OpenInSpooler(const std::string& name);
// In the order of the queue. Throws Failure.
std::vector<SpoolerJob> ListJobs(HANDLE printer, const std::string& shownName);
// "paused, printing"; "waiting" when there is nothing to tell.
std::string JobStatusText(uint32_t status);

// Spools a document as one job, and answers its number. held: it is paused before it is complete. Throws Failure.
uint32_t SpoolDocument(HANDLE printer, const std::string& title, std::string_view content, bool held,
                       const std::string& what);

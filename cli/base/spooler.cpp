// Calls of the print spooler. No state.
#include "base/spooler.h"

#include "base/failure.h"
#include "base/text.h"

#include <algorithm>

namespace {

constexpr size_t kPiece = size_t{1} << 20; // of a document, in one write

constexpr struct {
    uint32_t bit;
    const char* text;
} kStatusTexts[] = {
    {JOB_STATUS_PAUSED, "paused"},
    {JOB_STATUS_ERROR, "error"},
    {JOB_STATUS_DELETING, "deleting"},
    {JOB_STATUS_SPOOLING, "spooling"},
    {JOB_STATUS_PRINTING, "printing"},
    {JOB_STATUS_OFFLINE, "offline"},
    {JOB_STATUS_PAPEROUT, "out of paper"},
    {JOB_STATUS_PRINTED, "printed"},
    {JOB_STATUS_DELETED, "deleted"},
    {JOB_STATUS_BLOCKED_DEVQ, "blocked"},
    {JOB_STATUS_USER_INTERVENTION, "needs attention"},
    {JOB_STATUS_RESTART, "restarted"},
};

} // namespace

PrinterHandle OpenInSpooler(const std::string& name) {
    std::string text = name; // the call's text is not const
    PrinterHandle printer;
    if (!OpenPrinterA(text.data(), printer.Receive(), nullptr) && GetLastError() != ERROR_INVALID_PRINTER_NAME)
        throw SystemFailure(GetLastError(), "cannot open \"" + ToUtf8(name) + "\" in the spooler");
    return printer;
}

std::vector<SpoolerJob> ListJobs(HANDLE printer, const std::string& shownName) {
    DWORD count = 0;
    Bytes buffer;
    const auto grow = [&](DWORD size) {
        buffer.resize(size);
        return buffer.data();
    };
    if (!ReadJobs(printer, grow, &count))
        throw SystemFailure(GetLastError(), "cannot list the jobs of \"" + shownName + "\" in the spooler");
    std::vector<SpoolerJob> jobs;
    const auto* records = reinterpret_cast<const JOB_INFO_1A*>(buffer.data());
    for (DWORD i = 0; i < count; ++i) {
        jobs.push_back({.id = records[i].JobId,
                        .document = OrEmpty(records[i].pDocument),
                        .user = OrEmpty(records[i].pUserName),
                        .dataType = OrEmpty(records[i].pDatatype),
                        .status = records[i].Status,
                        .submitted = records[i].Submitted});
    }
    return jobs;
}

std::string JobStatusText(uint32_t status) {
    std::string text;
    for (const auto& known : kStatusTexts)
        if ((status & known.bit) != 0) text += (text.empty() ? "" : ", ") + std::string(known.text);
    return text.empty() ? "waiting" : text;
}

uint32_t SpoolDocument(HANDLE printer, const std::string& title, std::string_view content, bool held,
                       const std::string& what) {
    std::string titleText = title; // the record's pointers are not const
    DOC_INFO_1A document{titleText.data(), nullptr, nullptr};
    // Closing the handle drops a job that is not complete.
    const DWORD job = StartDocPrinterA(printer, 1, reinterpret_cast<LPBYTE>(&document));
    if (job == 0) throw SystemFailure(GetLastError(), what);
    if (held && !SetJobA(printer, job, 0, nullptr, JOB_CONTROL_PAUSE)) throw SystemFailure(GetLastError(), what);
    while (!content.empty()) {
        const size_t piece = std::min(content.size(), kPiece);
        DWORD written = 0;
        if (!WritePrinter(printer, const_cast<char*>(content.data()), static_cast<DWORD>(piece), &written))
            throw SystemFailure(GetLastError(), what);
        content.remove_prefix(written);
    }
    if (!EndDocPrinter(printer)) throw SystemFailure(GetLastError(), what);
    return job;
}

// Calls of the print spooler. No state.
#include "spool.h"

#include "product/growing_reads.h"
#include "product/guards.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr SIZE_T kDocumentMax = SIZE_T{32} << 20;
constexpr DWORD kJobSize = 384; // with its texts, as a rule
constexpr DWORD kPieceSize = 64 * 1024;
constexpr SIZE_T kPagesMax = 10000;
constexpr SIZE_T kLinesOfPage = 66;

std::string TextOf(const char* text) {
    return text ? text : "";
}

SIZE_T CountOf(std::string_view text, std::string_view what) {
    SIZE_T count = 0;
    for (SIZE_T at = text.find(what); at != text.npos; at = text.find(what, at + what.size()))
        ++count;
    return count;
}

// "/Type /Page", and not "/Type /Pages".
SIZE_T PagesOfPdf(std::string_view text) {
    constexpr std::string_view kType = "/Type";
    constexpr std::string_view kPage = "/Page";
    SIZE_T pages = 0;
    for (SIZE_T at = text.find(kType); at != text.npos; at = text.find(kType, at)) {
        at = std::min(text.find_first_not_of(" \t\r\n", at + kType.size()), text.size());
        const std::string_view rest = text.substr(at);
        if (rest.starts_with(kPage) && !rest.substr(kPage.size()).starts_with('s')) ++pages;
    }
    return pages;
}

SIZE_T PagesOfText(std::string_view text) {
    SIZE_T pages = 0;
    while (!text.empty()) {
        const SIZE_T end = std::min(text.find('\f'), text.size());
        const std::string_view sheet = text.substr(0, end);
        const SIZE_T lines = CountOf(sheet, "\n") + (sheet.ends_with('\n') ? 0 : 1);
        pages += std::max<SIZE_T>((lines + kLinesOfPage - 1) / kLinesOfPage, 1);
        text.remove_prefix(std::min<size_t>(end + 1, text.size()));
    }
    return pages;
}

} // namespace

std::optional<std::vector<SpooledJob>> ListSpooledJobs(HANDLE printer, DWORD most) {
    std::vector<BYTE> buffer;
    DWORD count = 0;
    const auto grow = [&](DWORD size) {
        buffer.resize(size);
        return buffer.data();
    };
    // A print server is asked once rather than twice.
    const DWORD room = most != kAllJobs ? most * kJobSize : 0;
    if (!ReadJobs(printer, grow, &count, most, room)) return std::nullopt;
    std::vector<SpooledJob> jobs;
    const auto* records = reinterpret_cast<const JOB_INFO_1A*>(buffer.data());
    for (DWORD i = 0; i < count; ++i)
        jobs.push_back({.id = records[i].JobId,
                        .status = records[i].Status,
                        .pages = records[i].PagesPrinted,
                        .name = TextOf(records[i].pDocument),
                        .owner = TextOf(records[i].pUserName)});
    return jobs;
}

DWORD PagesOfDocument(const std::string& document) {
    SIZE_T pages = document.starts_with("%PDF-") ? PagesOfPdf(document)
                   : document.starts_with("%!")  ? CountOf(document, "\n%%Page:")
                                                 : PagesOfText(document);
    return static_cast<DWORD>(std::clamp<SIZE_T>(pages, 1, kPagesMax));
}

std::optional<DWORD> PagesOfJob(const std::string& printer, DWORD job) {
    std::string name = printer + ", Job " + std::to_string(job); // the call's text is not const
    const PrinterHandle handle = OpenSpoolerPrinter(name.data());
    if (!handle) return std::nullopt;
    std::string document;
    DWORD read = 0;
    do {
        const SIZE_T size = document.size();
        document.resize(size + kPieceSize);
        if (!ReadPrinter(handle.Get(), &document[size], kPieceSize, &read)) read = 0;
        document.resize(size + read);
    } while (read != 0 && document.size() < kDocumentMax);
    return PagesOfDocument(document);
}

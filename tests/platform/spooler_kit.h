// Printers and jobs of the spooler in few words, over Win32 alone.
#pragma once

#include "registry_kit.h"
#include "win32_kit.h"

#include <winspool.h>

// A record and its texts; the last error is its result.
inline DWORD Add(std::string name, std::string driver = "Driver", std::string port = "LPT1:", DWORD attributes = 0,
                 HANDLE* handle = nullptr) {
    NeedsTheLayer("printers without an installed driver");
    std::string comment = "of " + name;
    PRINTER_INFO_2A record{};
    record.pPrinterName = name.data();
    record.pDriverName = driver.data();
    record.pPortName = port.data();
    record.pComment = comment.data();
    record.Attributes = attributes;
    const HANDLE printer = AddPrinterA(nullptr, 2, reinterpret_cast<LPBYTE>(&record));
    if (printer == nullptr) return GetLastError();
    if (handle != nullptr)
        *handle = printer;
    else
        ClosePrinter(printer);
    return ERROR_SUCCESS;
}

inline DWORD Open(std::string name, HANDLE* printer, ACCESS_MASK access = 0) {
    PRINTER_DEFAULTSA defaults{nullptr, nullptr, access};
    return OpenPrinterA(name.data(), printer, access != 0 ? &defaults : nullptr) ? ERROR_SUCCESS : GetLastError();
}

constexpr DWORD kBoth = PRINTER_ENUM_LOCAL | PRINTER_ENUM_CONNECTIONS;

inline Names PrintersOf(DWORD flags) {
    DWORD needed = 0;
    DWORD returned = 0;
    EnumPrintersA(flags, nullptr, 2, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed);
    EXPECT_TRUE(EnumPrintersA(flags, nullptr, 2, buffer.data(), needed, &needed, &returned)) << GetLastError();
    Names names;
    for (DWORD at = 0; at < returned; ++at)
        names.emplace_back(reinterpret_cast<PRINTER_INFO_2A*>(buffer.data())[at].pPrinterName);
    return names;
}

// The jobs of a printer as "number status user document", one a line.
inline std::string JobsOf(HANDLE printer, DWORD first = 0, DWORD count = 0xFFFFFFFF) {
    DWORD needed = 0;
    DWORD returned = 0;
    EnumJobsA(printer, first, count, 1, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed + 4096); // another may come
    if (!EnumJobsA(printer, first, count, 1, buffer.data(), static_cast<DWORD>(buffer.size()), &needed, &returned))
        return "error " + std::to_string(GetLastError());
    std::string lines;
    for (DWORD at = 0; at < returned; ++at) {
        const JOB_INFO_1A& job = reinterpret_cast<JOB_INFO_1A*>(buffer.data())[at];
        EXPECT_EQ(job.Position, first + at + 1);
        lines += std::to_string(job.JobId) + " " + std::to_string(job.Status) + " " + job.pUserName + " " +
                 job.pDocument + "\n";
    }
    return lines;
}

inline DWORD Start(HANDLE printer, std::string document) {
    DOC_INFO_1A record{document.data(), nullptr, nullptr};
    return StartDocPrinterA(printer, 1, reinterpret_cast<LPBYTE>(&record));
}

// A whole job; its number.
inline DWORD Print(HANDLE printer, const std::string& document, std::string data = "data") {
    const DWORD job = Start(printer, document);
    DWORD written = 0;
    EXPECT_NE(job, 0U) << GetLastError();
    EXPECT_TRUE(WritePrinter(printer, data.data(), static_cast<DWORD>(data.size()), &written)) << GetLastError();
    EXPECT_EQ(written, data.size());
    EXPECT_TRUE(EndDocPrinter(printer)) << GetLastError();
    return job;
}

inline DWORD Control(HANDLE printer, DWORD job, DWORD command) {
    return Code(SetJobA(printer, job, 0, nullptr, command));
}

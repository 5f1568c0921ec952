// Printers and jobs of the spooler in few words.
#pragma once

#include "kit.h"

#include <winspool.h>

// A record and its texts; the last error is its result.
inline DWORD Add(std::string name, std::string driver = "Driver", std::string port = "LPT1:", DWORD attributes = 0,
                 HANDLE* handle = nullptr) {
    std::string comment = "of " + name;
    PRINTER_INFO_2A record{.pPrinterName = name.data(),
                           .pPortName = port.data(),
                           .pDriverName = driver.data(),
                           .pComment = comment.data(),
                           .Attributes = attributes};
    HANDLE ignored = nullptr;
    HANDLE& printer = handle ? *handle : ignored;
    printer = AddPrinterA(nullptr, 2, reinterpret_cast<LPBYTE>(&record));
    return Code(printer != nullptr);
}

inline DWORD Open(std::string name, HANDLE* printer, ACCESS_MASK access = 0) {
    PRINTER_DEFAULTSA defaults{nullptr, nullptr, access};
    return Code(OpenPrinterA(name.data(), printer, access != 0 ? &defaults : nullptr));
}

inline HANDLE Opened(const std::string& name) {
    HANDLE printer = nullptr;
    EXPECT_EQ(Open(name, &printer), DWORD{ERROR_SUCCESS}) << name;
    return printer;
}

constexpr DWORD kBoth = PRINTER_ENUM_LOCAL | PRINTER_ENUM_CONNECTIONS;

inline Names PrintersOf(DWORD flags) {
    std::vector<BYTE> buffer(16384);
    DWORD needed = 0, returned = 0;
    EXPECT_TRUE(EnumPrintersA(flags, nullptr, 2, buffer.data(), 16384, &needed, &returned)) << GetLastError();
    Names names;
    for (DWORD at = 0; at < returned; ++at)
        names.emplace_back(reinterpret_cast<PRINTER_INFO_2A*>(buffer.data())[at].pPrinterName);
    return names;
}

// "name, driver, port, comment, location, server, attributes", and its status if any, of a printer, or the error.
inline std::string RecordOf(HANDLE printer) {
    BYTE buffer[4096];
    DWORD needed = 0;
    if (!GetPrinterA(printer, 2, buffer, sizeof buffer, &needed)) return "error " + std::to_string(GetLastError());
    const auto& record = *reinterpret_cast<PRINTER_INFO_2A*>(buffer);
    return std::string(record.pPrinterName) + ", " + record.pDriverName + ", " + record.pPortName + ", " +
           record.pComment + ", " + record.pLocation + ", " + (record.pServerName ? record.pServerName : "none") +
           ", " + std::to_string(record.Attributes) +
           (record.Status != 0 ? ", status " + std::to_string(record.Status) : "");
}

// A job as JobsOf tells it; of this user unless another is named.
inline std::string Line(DWORD job, DWORD status, const std::string& document, const std::string& user = "") {
    char name[256] = "";
    DWORD size = sizeof name;
    EXPECT_TRUE(GetUserNameA(name, &size));
    return std::to_string(job) + " " + std::to_string(status) + " " + (user.empty() ? name : user) + " " + document +
           "\n";
}

// The jobs of a printer as "number status user document", one a line.
inline std::string JobsOf(HANDLE printer, DWORD first = 0, DWORD count = 0xFFFFFFFF) {
    std::vector<BYTE> buffer(16384);
    DWORD needed = 0, returned = 0;
    if (!EnumJobsA(printer, first, count, 1, buffer.data(), 16384, &needed, &returned))
        return "error " + std::to_string(GetLastError());
    std::string lines;
    for (DWORD at = 0; at < returned; ++at) {
        const JOB_INFO_1A& job = reinterpret_cast<JOB_INFO_1A*>(buffer.data())[at];
        EXPECT_EQ(job.Position, first + at + 1);
        lines += Line(job.JobId, job.Status, job.pDocument, *job.pUserName ? job.pUserName : " ");
    }
    return lines;
}

// A document that is begun; its job, and 0 with the error.
inline DWORD Start(HANDLE printer, std::string document) {
    DOC_INFO_1A record{document.data(), nullptr, nullptr};
    return StartDocPrinterA(printer, 1, reinterpret_cast<LPBYTE>(&record));
}

// A whole job; its number.
inline DWORD Print(HANDLE printer, const std::string& document, std::string data = "data") {
    const DWORD job = Start(printer, document);
    DWORD written = 0;
    EXPECT_TRUE(WritePrinter(printer, data.data(), static_cast<DWORD>(data.size()), &written)) << GetLastError();
    EXPECT_EQ(written, data.size());
    EXPECT_TRUE(EndDocPrinter(printer)) << GetLastError();
    return job;
}

inline DWORD Control(HANDLE printer, DWORD job, DWORD command) {
    return Code(SetJobA(printer, job, 0, nullptr, command));
}

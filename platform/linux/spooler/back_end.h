// The back ends of the spooler: the embedded spool, and the system's print server. No state.
//
// Plain records of the standard library only, because a back end may be a module of its own. On this side of a back end
// texts are in the ANSI code page and times are those of the system.
#pragma once

#include <cstdint>
#include <string>
#include <vector>
#include <windef.h>

namespace oriel {

// The texts of a printer; kPrinterTexts (records.cpp) maps them to PRINTER_INFO_2A.
enum PrinterText : size_t {
    kPrinterName,
    kServerName,
    kShareName,
    kPortName,
    kDriverName,
    kPrinterComment,
    kPrinterLocation,
    kPrintProcessor,
    kPrinterDatatype,
    kPrinterTextCount
};

struct Printer {
    int64_t id = 0; // in the embedded spool; else 0
    std::string texts[kPrinterTextCount];
    DWORD attributes = 0;
    DWORD status = 0; // PRINTER_STATUS_*

    const std::string& Name() const { return texts[kPrinterName]; }
};

// A printer as its handle knows it; looked up whenever it is used.
struct PrinterKey {
    int64_t id = 0;
    std::string name;
};

struct Job {
    DWORD id = 0;
    DWORD status = 0; // JOB_STATUS_*
    DWORD priority = 1;
    DWORD totalPages = 0;
    DWORD pagesPrinted = 0;
    int64_t submittedMs = 0; // since 1970
    std::string machine;     // without backslashes
    std::string user;
    std::string document;
    std::string datatype;
};

enum class JobCommand { Pause, Resume, Cancel };

// Every procedure returns ERROR_SUCCESS or a code of its call's contract, and throws only std::bad_alloc. Any threads
// may call them at the same time.
struct SpoolerBackEnd {
    DWORD (*listPrinters)(std::vector<Printer>* printers);
    // ERROR_INVALID_PRINTER_NAME: there is no such printer.
    DWORD (*findPrinter)(const std::string& name, PrinterKey* key);
    // ERROR_PRINTER_DELETED, here and below: the printer is gone.
    DWORD (*readPrinter)(const PrinterKey& key, Printer* printer);
    // In queue order. most: how many are wanted; there may be more.
    DWORD (*listJobs)(const PrinterKey& key, DWORD most, std::vector<Job>* jobs);
    // ERROR_INVALID_PARAMETER: the printer has no such job. ERROR_ACCESS_DENIED: not allowed to the thread's user.
    DWORD (*changeJob)(const PrinterKey& key, DWORD job, JobCommand command);
};

extern const SpoolerBackEnd kEmbeddedSpool;

} // namespace oriel

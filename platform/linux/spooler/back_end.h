// What the spooler's calls ask of whoever has the printers: the embedded spool, or the system's print server.
//
// Plain records of the standard library and no more, since a back end may be a module of its own: texts are in the ANSI
// code page on this side of a back end, times are those of the system.
#pragma once

#include <cstdint>
#include <string>
#include <vector>
#include <windef.h>

namespace oriel {

// The texts that are known of a printer; kPrinterTexts (records.cpp) says where a PRINTER_INFO_2A has them.
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
    int64_t id = 0; // of the embedded spool; 0 elsewhere
    std::string texts[kPrinterTextCount];
    DWORD attributes = 0;

    const std::string& Name() const { return texts[kPrinterName]; }
};

// A printer as a handle knows it. It is looked up when it is used.
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

enum class JobCommand { kPause, kResume, kCancel };

// Every procedure gives ERROR_SUCCESS or a code of its call's contract; they may throw std::bad_alloc, nothing else.
// Any thread calls them, several at once.
struct SpoolerBackEnd {
    DWORD (*listPrinters)(std::vector<Printer>* printers);
    // ERROR_INVALID_PRINTER_NAME: there is no such printer.
    DWORD (*findPrinter)(const std::string& name, PrinterKey* key);
    // ERROR_PRINTER_DELETED: it has gone, here and below.
    DWORD (*readPrinter)(const PrinterKey& key, Printer* printer);
    // In the order of the queue.
    DWORD (*listJobs)(const PrinterKey& key, std::vector<Job>* jobs);
    // ERROR_INVALID_PARAMETER: the printer has no such job. ERROR_ACCESS_DENIED: the thread's user may not.
    DWORD (*changeJob)(const PrinterKey& key, DWORD job, JobCommand command);
};

extern const SpoolerBackEnd kEmbeddedSpool;

} // namespace oriel

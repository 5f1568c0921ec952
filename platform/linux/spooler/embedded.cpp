// The embedded spool as a back end: printers in the store, jobs in files.
#include "registry/names.h"
#include "spooler/job_files.h"
#include "spooler/store.h"

#include <winerror.h>

namespace oriel {
namespace {

DWORD FindNamed(const std::string& name, PrinterKey* key) {
    const DWORD error = FindPrinter(FoldName(name), &key->id);
    if (error == ERROR_SUCCESS) key->name = name;
    return error == ERROR_FILE_NOT_FOUND ? ERROR_INVALID_PRINTER_NAME : error;
}

DWORD ReadKnown(const PrinterKey& key, Printer* printer) {
    const DWORD error = ReadPrinter(key.id, printer);
    return error == ERROR_FILE_NOT_FOUND ? ERROR_PRINTER_DELETED : error;
}

DWORD ListJobsOf(const PrinterKey& key, std::vector<Job>* jobs) {
    Printer printer;
    const DWORD error = ReadKnown(key, &printer);
    return error == ERROR_SUCCESS ? ListJobFiles(key.id, jobs) : error;
}

DWORD ChangeJobOf(const PrinterKey& key, DWORD job, JobCommand command) {
    Printer printer;
    const DWORD error = ReadKnown(key, &printer);
    return error == ERROR_SUCCESS ? ChangeJobFile(key.id, job, command) : error;
}

} // namespace

const SpoolerBackEnd kEmbeddedSpool{
    .listPrinters = ListPrinters,
    .findPrinter = FindNamed,
    .readPrinter = ReadKnown,
    .listJobs = ListJobsOf,
    .changeJob = ChangeJobOf,
};

} // namespace oriel

// What a printer's handle stands for, and what tells of changes of its jobs.
#pragma once

#include "kernel/handles.h"
#include "spooler/back_end.h"
#include "spooler/job_files.h"

#include <cstdint>
#include <mutex>
#include <windef.h>

namespace oriel {

struct PrinterObject : Object {
    PrinterObject(const SpoolerBackEnd* printersOf, PrinterKey printer);

    const SpoolerBackEnd* const backEnd;
    const PrinterKey key;
    // Held for as long as a file of the spool takes its bytes.
    std::mutex documentLock;
    SpooledDocument document; // begun with StartDocPrinterA
    Descriptor jobDocument;   // of a job that was opened instead of its printer
};

extern const ObjectType kPrinterType;

// Something became of a job of this printer. Without anybody who waits it is a look for a name and no more. Leaves the
// last error alone.
void TellOfJobs(int64_t printer);

} // namespace oriel

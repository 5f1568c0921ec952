// The object of a printer handle, and notifications of job changes. State: the handles.
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
    // Held while the bytes of a document are written.
    std::mutex documentLock;
    SpooledDocument document; // started with StartDocPrinterA
    Descriptor jobDocument;   // of a job that was opened instead of its printer
};

extern const ObjectType kPrinterType;

// Signals a change of this printer's jobs. Costs one look-up of a name when nobody waits. Keeps the last error.
void TellOfJobs(int64_t printer);

} // namespace oriel

// What a printer's handle stands for.
#pragma once

#include "kernel/handles.h"
#include "spooler/back_end.h"
#include "spooler/job_files.h"

#include <mutex>

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

} // namespace oriel

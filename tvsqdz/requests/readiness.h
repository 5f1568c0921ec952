// What is asked before a request goes to the printer side: whether it takes one, and whether this caller may make it.
#pragma once

#include "manager/manager_record.h"

// Requests of the manager travel through the service's ForwardRequest, not through the printer side's mailbox.
inline bool UsesForwardedPath(const ManagerRecord* manager) {
    return manager->lmFunction != 0;
}

// The printer side answers requests now. Nobody is asked on the forwarded path, where SpoolerIsReady tells.
bool PrinterTakesRequests(const ManagerRecord* manager);
// The printer's port is one that no request can go through.
bool PortRefusesRequests(const ManagerRecord* manager);
// Waits a moment for a spooler that is still getting ready (Timings.readinessPause, .readinessPauses).
bool SpoolerIsReady(const ManagerDatabase& printerDatabase);
// The spooler takes refreshes.
bool SpoolerTakesRefreshes(const ManagerDatabase& printerDatabase);

// The exchange with the printer side: one request to a printer, and its result.
//
// A request travels on one of two paths. On the event path its text is written into a mailbox variable of the printer's
// database ("ReadRequest": the name of a variable; "WriteRequest": the name of a companion, or "RefreshStatus"); the
// printer side carries it out and writes its result into "RWResult". On the forwarded path the service has it carried
// out (ForwardRequest), and the library writes "RWResult".
//
// All of it happens under the printer's request mutex, which the caller holds: the mailbox has room for one request.
// The value to be written is placed before the request is made: the text of a refresh in "RefreshStatus", any other
// value in the companion, a variable named like the one to be written and "W". After a read the value read is in the
// database.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/client.h"
#include "product/status.h"
#include "values/updating.h"

#include <stdint.h>

enum class RequestKind { Read, Write, Refresh };

// Made of one service and answered by it: with the next one nobody knows of the request any more.
struct PrinterRequest {
    DatabaseHandle printerDatabase;
    DatabaseNameText databaseName;
    RequestKind kind;
    const char* variableName; // not used by a refresh
};

PrinterRequest RequestOf(const ManagerRecord* manager, RequestKind kind, const char* variableName);

// What a write of that variable asks for: a refresh is the write of "RefreshStatus".
RequestKind WriteKindOf(const char* variableName);

// What such a request names fits the mailbox: the name of the variable, or that of its companion, which is one longer.
// The printer cannot be asked for a variable with a longer name.
bool FitsMailbox(const ManagerRecord* manager, RequestKind kind, const StatusVariableDef& variable);

// Places what a write or a refresh of a variable is about. TVS_OK; TVS_E_UNKNOWN when a companion does not take the
// value; TVS_E_NOT_NOW for a refresh while the spooler takes none; or the service's answer to the text of a refresh.
Status PlaceValue(const ManagerDatabase& printerDatabase, const StatusVariableDef& variable, CallerValue& value);

// The event path. mutexWait: the result of the wait for the request mutex. The status is the request's result, an
// answer of the service when the request cannot be made or its result cannot be read, that of a failed call when the
// service was started anew meanwhile, TVS_E_MEMORY when there is no
// completion event, or TVS_E_REQUEST_LOCK when there is no answer in time, or the library is being unloaded. boundMs
// INFINITE: a printer side that never answers holds up the caller and everyone behind it.
Status AskPrinterSide(const PrinterRequest& request, DWORD mutexWait, DWORD boundMs);

// The forwarded path, for a printer of that name, in two steps: the mailbox, and the service's call. The status of the
// second is the request's result.
Status PostForwardedRequest(const PrinterRequest& request);
Status ForwardPostedRequest(const PrinterRequest& request, const char* printerName);

// What is asked before a request goes to the printer side: whether it takes one, and whether this caller may make it.

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

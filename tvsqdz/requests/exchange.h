// The exchange with the printer side: one request to a printer, and its result. No state here: a request in progress is
// in the printer's database.
//
// A request takes one of two paths. On the event path its text is written into a mailbox variable of the printer's
// database ("ReadRequest": the name of a variable; "WriteRequest": the name of a companion, or "RefreshStatus"); the
// printer side carries it out and writes the result into "RWResult". On the forwarded path the service has it carried
// out (ForwardRequest), and the library writes "RWResult".
//
// The caller holds the printer's request mutex throughout, because the mailbox has room for one request. The value to
// be written is placed before the request is made, under the same mutex: the text of a refresh in "RefreshStatus", any
// other value in the companion, a variable with the name of the written one and "W". After a read the value is in the
// database.
#pragma once

#include "manager/manager_record.h"
#include "manager/variables.h"
#include "product/client.h"
#include "product/status.h"
#include "values/updating.h"

#include <stdint.h>

enum class RequestKind { Read, Write, Refresh };

// Valid for one run of the service: the next one does not know the request.
struct PrinterRequest {
    DatabaseHandle printerDatabase;
    DatabaseNameText databaseName;
    RequestKind kind;
    const char* variableName; // unused in a refresh
};

PrinterRequest RequestOf(const ManagerRecord* manager, RequestKind kind, const char* variableName);

// The kind of a write of that variable: a write of "RefreshStatus" is a refresh.
RequestKind WriteKindOf(const char* variableName);

// True when the name in such a request fits the mailbox: the name of the variable, or of its companion, which is one
// character longer. The printer cannot be asked for variables with longer names.
bool FitsMailbox(const ManagerRecord* manager, RequestKind kind, const StatusVariableDef& variable);

// What is placed for a write: the text of a refresh, or the value in its stored form. The bytes are the caller value's.
CallerValue::Bytes BytesToPlace(const StatusVariableDef& variable, CallerValue& value);
// Whether the value can be placed now. TVS_OK; TVS_E_UNKNOWN when there is no companion that takes it; TVS_E_NOT_NOW
// for a refresh while the spooler takes none.
Status CheckPlace(const ManagerDatabase& printerDatabase, const StatusVariableDef& variable,
                  const CallerValue::Bytes& bytes);
// Places it. Also the service's answer to the text of a refresh. writes: if not null, the write count by which the
// place is known to be untouched.
Status PlaceBytes(const ManagerDatabase& printerDatabase, const char* variableName, const CallerValue::Bytes& bytes,
                  DWORD* writes = nullptr);
// True when nobody has written to the place since.
bool IsStillPlaced(const ManagerDatabase& printerDatabase, const char* variableName, DWORD writes);

// The event path. mutexWait: the result of the wait for the request mutex. The status is the result of the request; an
// answer of the service when the request cannot be made or its result cannot be read; that of a failed call when the
// service was restarted meanwhile; TVS_E_MEMORY without a completion event; or TVS_E_REQUEST_LOCK when there is no
// answer in time or the library is being unloaded. boundMs INFINITE: a printer side that never answers blocks the
// caller and everyone behind it.
Status AskPrinterSide(const PrinterRequest& request, DWORD mutexWait, DWORD boundMs);

// The forwarded path, for a printer of that name, in two steps: the mailbox, and the call of the service. The status of
// the second step is the result of the request.
Status PostForwardedRequest(const PrinterRequest& request);
Status ForwardPostedRequest(const PrinterRequest& request, const char* printerName);

// Questions before a request: whether the printer side takes one, and whether this caller may make it.

// True when requests go through the service's ForwardRequest, not through the mailbox of the printer side.
inline bool UsesForwardedPath(const ManagerRecord* manager) {
    return manager->lmFunction != 0;
}

// True when the printer side answers requests now. Always true on the forwarded path, where SpoolerIsReady decides.
bool PrinterTakesRequests(const ManagerRecord* manager);
// True when requests cannot go through the printer's port.
bool PortRefusesRequests(const ManagerRecord* manager);
// True when the spooler is ready; waits a moment for one that is getting ready (Timings.readinessPause,
// .readinessPauses).
bool SpoolerIsReady(const ManagerDatabase& printerDatabase);
// True when the spooler takes refreshes.
bool SpoolerTakesRefreshes(const ManagerDatabase& printerDatabase);

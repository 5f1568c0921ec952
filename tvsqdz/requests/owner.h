// The manager service: in the process that owns a printer, a thread that serves what other processes relay to it, until
// its manager closes. It turns the message registrations that they leave (relayed_registrations.h) into registrations
// of its manager, and carries out the read requests that they leave (relayed_requests.h).
#pragma once

#include "manager/manager_record.h"
#include "product/guards.h"
#include "product/status.h"
#include "requests/threads.h"

// Starts the thread of a manager that owns its printer and is not in the list of managers yet: its record becomes the
// first of the manager's. Nobody waits for the thread to begin, for it looks first of all for what was left before.
// False when there is no memory or no thread.
bool StartManagerService(ManagerRecord* manager);

// Read requests that the printer's owner carries out: a process which delivers no messages itself leaves a request in
// the variable "RequestMsg" of the printer's database, which has room for one (status_request.h).
//
// Whoever changes the variable holds the printer's request mutex. The owner takes a request out by clearing the
// variable, and a request that has not been taken is never written over: its successor's requester waits.

inline constexpr char kRelayedRequestVariable[] = "RequestMsg";

// Leaves the request. lock: the request mutex, held; it is let go while another request has to be taken first, for
// Timings.relayBound at most. TVS_OK, TVS_E_NO_OWNER when nobody takes that one, TVS_E_REQUEST_LOCK, or the answer of
// the service.
Status RelayRequest(ManagerRecord* manager, const StatusRequest& request, MutexHold& lock);

// The owner's side; the request mutex is held. False when there is none. What the requester wrote is not trusted: the
// record's texts end within their fields, and it completes by a message, since an event of its number would be another
// process's.
bool ReadRelayedRequest(ManagerRecord* manager, StatusRequest* request);
void ClearRelayedRequest(ManagerRecord* manager);

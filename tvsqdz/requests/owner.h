// The service of a printer's owner for other processes: a thread that runs until its manager closes. It turns the
// message registrations that other processes leave (notify/relayed_registrations.h) into registrations of its manager,
// and carries out the read requests that they leave here.
#pragma once

#include "manager/manager_record.h"
#include "product/guards.h"
#include "product/status.h"
#include "requests/threads.h"

// Starts the thread of a manager that owns its printer and is not yet in the list of managers; its record becomes the
// manager's first. The thread is not waited for, because it first looks for what was left earlier. False when out of
// memory or threads.
bool StartManagerService(ManagerRecord* manager);

// A process that delivers no messages itself leaves a read request in the variable "RequestMsg" of the printer's
// database, which has room for one (StatusRequest of threads.h).
//
// Whoever changes the variable holds the printer's request mutex. The owner takes a request by clearing the variable. A
// request that has not been taken is never overwritten: the next requester waits.

// Leaves the request. lock: the request mutex, held; it is released while an earlier request has to be taken first, for
// at most Timings.relayBound. TVS_OK, TVS_E_NO_OWNER when nobody takes the earlier one, TVS_E_REQUEST_LOCK, or the
// answer of the service.
Status RelayRequest(ManagerRecord* manager, const StatusRequest& request, MutexHold& lock);

// For the owner; the caller holds the request mutex. False when there is no request. The record is not trusted: its
// texts are terminated within their fields, and it completes by a message, because an event handle would be that of
// another process.
bool ReadRelayedRequest(ManagerRecord* manager, StatusRequest* request);
void ClearRelayedRequest(ManagerRecord* manager);

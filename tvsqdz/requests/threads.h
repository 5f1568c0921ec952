// Asynchronous requests (product/mailboxes.h has their record): the threads that carry them out, and the results of
// writes. State: "RequestMsg" and "ReqResult" of the printer's database.
#pragma once

#include "manager/manager_record.h"
#include "product/mailboxes.h"
#include "product/status.h"
#include "values/updating.h"

#include <stddef.h>
#include <stdint.h>
#include <tvsqdz.h>
#include <windows.h>

// "ReqResult" has the results of asynchronous writes until they are asked for: a list (values/stored_list.h) of 8-byte
// items, u32 number and i32 result, in the order of the requests.
//
// Whoever changes the list holds the database mutex from the read to the write, and waits for nothing meanwhile. Not
// the request mutex: a request holds that as long as the printer takes, and others may ask for their results meanwhile.
// The database mutex is the inner one of the two.

// Enters a request under the next number, the largest in the list plus one. callersNumber, which may be caller memory,
// receives the number before the list is changed; a failure of that leaves the list unchanged. TVS_OK and *requestId;
// TVS_E_MEMORY, also when the numbers are used up; TVS_E_FAULT; or the answer of the service.
Status EnterRequest(ManagerRecord* manager, int32_t result, uint32_t* callersNumber, uint32_t* requestId);

// Sets the result of a request. A request that is not in the list (any more) was abandoned.
void RecordResult(ManagerRecord* manager, uint32_t requestId, int32_t result);
// Removes a request whose result nobody will ask for.
void RemoveRequest(ManagerRecord* manager, uint32_t requestId);

// Writes the result of a request to the caller and removes it from the list. TVS_OK, with TVS_E_UNKNOWN as the result
// of a request that is not in the list; TVS_E_NOT_READY, TVS_E_MEMORY or TVS_E_FAULT.
Status TakeResult(ManagerRecord* manager, uint32_t requestId, int32_t* callersResult);

// Threads. Nobody waits for them: each ends after the exchange with the printer side or its time limit
// (Timings.requestLockBound, .answerBound), and notifies its requester.
//
// A thread holds a reference to its manager, so that what it uses stays however early the manager is closed, and it
// pins the library: an unload waits for its end, the caller does not. The end of the process hurries it.

// What a write places (requests/exchange.h). The thread places it again under the request mutex, unless nobody has
// written there since: a request that is in progress at the start has a value of its own there, and so has one that
// gets its turn in between.
struct PlacedValue {
    CallerValue::Bytes bytes;
    DWORD writes; // as PlaceBytes told; 0: not placed yet
};

// Starts the thread of the request, with a stack of 64 KiB. The caller has a reference to the manager. value: of a
// write; null: what is in the place is written. mutexWait: the result of the caller's wait for the request mutex.
// False: out of memory or threads, and nothing was started. The request and the value are copied.
bool StartRequestThread(ManagerRecord* manager, const StatusRequest& request, const PlacedValue* value,
                        DWORD mutexWait);

// Posts the message or sets the event of the request.
void TellCompletion(const StatusRequest& request);

// "ReqResult" of a printer's database: the results of asynchronous write requests, which wait there until they are
// asked for. A list (values/stored_list.h) of 8-byte items: u32 number, i32 result; in the order in which they were
// made.
//
// Whoever changes the list holds the database mutex, in every process and from the first read to the write, and never
// while anything is waited for. Not the request mutex: a request keeps that for as long as the printer takes, and the
// result of another one may be asked for meanwhile. The database mutex is the inner one of the two.
#pragma once

#include "manager/manager_record.h"
#include "product/status.h"

#include <stdint.h>

// Enters a request under the next number, one more than the largest in the list. number receives it before the list is
// changed, and not at all when that fails: it may be the caller's memory. TVS_OK and *requestId; TVS_E_MEMORY, also
// when the numbers are used up; TVS_E_FAULT; or the answer of the service, in which case the list is as it was.
Status EnterRequest(ManagerRecord* manager, int32_t result, uint32_t* callersNumber, uint32_t* requestId);

// Sets the result of the request, wherever it comes from; one that is not in the list (any more) has been given up.
void RecordResult(ManagerRecord* manager, uint32_t requestId, int32_t result);
// Takes a request off whose result nobody will ask for.
void RemoveRequest(ManagerRecord* manager, uint32_t requestId);

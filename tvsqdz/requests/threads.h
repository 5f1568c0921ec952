// The record of one asynchronous request, as it lies in "RequestMsg" of the printer's database when a process leaves a
// request to the printer's owner.
//
// 364 bytes, little-endian, stored: handles have 32 bits in it, and what only its own process could use is 0.
#pragma once

#include "manager/manager_record.h"
#include "product/interface.h"
#include "product/status.h"
#include "values/updating.h"

#include <stddef.h>
#include <stdint.h>
#include <tvsqdz.h>
#include <windows.h>

// Bits of StatusRequest.requestFlags: one of each pair. None at all: there is no request.
inline constexpr uint32_t REQ_BY_EVENT = 0x00001;   // sets the event `target` when it is done
inline constexpr uint32_t REQ_BY_MESSAGE = 0x00002; // posts `message` to the window `target`
inline constexpr uint32_t REQ_READ = 0x10000;
inline constexpr uint32_t REQ_WRITE = 0x20000;

struct StatusRequest {
    uint32_t requestId;       // of a write: its number in "ReqResult"
    uint32_t handoffEvent;    // 0
    uint32_t requestMutex;    // 0
    uint32_t printerDatabase; // 0
    uint32_t requestFlags;
    uint32_t target;  // event or window
    uint32_t message; // the number to post
    char variableName[32];
    char databaseName[product::kDatabaseNameMax + 1];
    char printerName[TVS_PRINTER_NAME_MAX + 1];
    uint32_t refreshText; // 0
    uint32_t useForward;  // not 0: the service has it carried out
    uint32_t isRefresh;   // not 0: a write of "RefreshStatus"
};
static_assert(sizeof(StatusRequest) == 364 && offsetof(StatusRequest, requestId) == 0 &&
              offsetof(StatusRequest, handoffEvent) == 4 && offsetof(StatusRequest, requestMutex) == 8 &&
              offsetof(StatusRequest, printerDatabase) == 12 && offsetof(StatusRequest, requestFlags) == 16 &&
              offsetof(StatusRequest, target) == 20 && offsetof(StatusRequest, message) == 24 &&
              offsetof(StatusRequest, variableName) == 28 && offsetof(StatusRequest, databaseName) == 60 &&
              offsetof(StatusRequest, printerName) == 92 && offsetof(StatusRequest, refreshText) == 352 &&
              offsetof(StatusRequest, useForward) == 356 && offsetof(StatusRequest, isRefresh) == 360);

// "ReqResult" of a printer's database: the results of asynchronous write requests, which wait there until they are
// asked for. A list (values/stored_list.h) of 8-byte items: u32 number, i32 result; in the order in which they were
// made.
//
// Whoever changes the list holds the database mutex, in every process and from the first read to the write, and never
// while anything is waited for. Not the request mutex: a request keeps that for as long as the printer takes, and the
// result of another one may be asked for meanwhile. The database mutex is the inner one of the two.

// Enters a request under the next number, one more than the largest in the list. number receives it before the list is
// changed, and not at all when that fails: it may be the caller's memory. TVS_OK and *requestId; TVS_E_MEMORY, also
// when the numbers are used up; TVS_E_FAULT; or the answer of the service, in which case the list is as it was.
Status EnterRequest(ManagerRecord* manager, int32_t result, uint32_t* callersNumber, uint32_t* requestId);

// Sets the result of the request, wherever it comes from; one that is not in the list (any more) has been given up.
void RecordResult(ManagerRecord* manager, uint32_t requestId, int32_t result);
// Takes a request off whose result nobody will ask for.
void RemoveRequest(ManagerRecord* manager, uint32_t requestId);

// Hands the result of a request to the caller and takes it off the list; TVS_REQUEST_PENDING, while there is none,
// stays there. TVS_OK, with TVS_E_UNKNOWN as the result of a request that is not in the list; TVS_E_NOT_READY,
// TVS_E_MEMORY or TVS_E_FAULT.
Status TakeResult(ManagerRecord* manager, uint32_t requestId, int32_t* callersResult);

// The threads that carry out asynchronous requests. Nobody waits for them: each ends by itself, after the exchange with
// the printer side or its time limit (Timings.requestLockBound, .answerBound), and tells its requester.
//
// A thread holds a reference to its manager, so that what it uses stays until it ends, however early the manager is
// closed; and the detach of the library waits for it, which hurries it up.

// Starts the thread of the request, with a stack of 64 KiB. The manager is one that the caller has a reference to, from
// inside a call or on a thread that the manager's close waits for. refresh: the text of a refresh that is forwarded, or
// null. mutexWait: the result of the caller's wait for the request mutex. False: there is no memory or no thread, and
// nothing was started. The request is copied.
bool StartRequestThread(ManagerRecord* manager, const StatusRequest& request, const CallerValue::Bytes* refresh,
                        DWORD mutexWait);

// Posts the message or sets the event of the request.
void TellCompletion(const StatusRequest& request);

// The threads that carry out asynchronous requests. Nobody waits for them: each ends by itself, after the exchange with
// the printer side or its time limit (Timings.requestLockBound, .answerBound), and tells its requester.
//
// A thread holds a reference to its manager, so that what it uses stays until it ends, however early the manager is
// closed; and the detach of the library waits for it, which hurries it up.
#pragma once

#include "manager/manager_record.h"
#include "requests/status_request.h"
#include "values/caller_value.h"

// Starts the thread of the request, with a stack of 64 KiB. The manager is one that the caller has a reference to, from
// inside a call or on a thread that the manager's close waits for. refresh: the text of a refresh that is forwarded, or
// null. mutexWait: the result of the caller's wait for the request mutex. False: there is no memory or no thread, and
// nothing was started. The request is copied.
bool StartRequestThread(ManagerRecord* manager, const StatusRequest& request, const CallerValue::Bytes* refresh,
                        DWORD mutexWait);

// Posts the message or sets the event of the request.
void TellCompletion(const StatusRequest& request);

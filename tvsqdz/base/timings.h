// Every time limit and pause of the library, in milliseconds. Tests shorten them; nothing else changes them.
#pragma once

#include <windows.h>

struct Timings {
    // Waiting for the status database service under Windows NT: the interval between two queries of its state. The wait
    // hint that a service reports is clamped to these bounds, so that neither 0 nor "for ever" is believed.
    DWORD servicePoll = 490;
    DWORD shortestWaitHint = 10;
    DWORD longestWaitHint = 60000;

    // The same under Windows 95/98/Me: the interval between two looks for the start-up process or the service's window,
    // and how long the process of a window that has just appeared gets before it is called.
    DWORD startUpPoll = 500;
    DWORD windowPoll = 500;
    DWORD windowSettle = 3000;

    // Restarting the service there: the interval between two looks at a window that was asked to close; the bound for
    // that, since a process that does not close would block every open on the machine; and how long a new process gets
    // to show its window before the call is repeated.
    DWORD closePoll = 500;
    DWORD closeBound = 10000;
    DWORD restartPoll = 50;
    DWORD restartBound = 3000;

    // Waiting for a database that another process initialises: one slice, the pause when its event cannot be opened,
    // and the bound for all slices.
    DWORD initialisedSlice = 250;
    DWORD initialisedPause = 10;
    DWORD initialisedBound = 60000;

    // The database mutex: how long an open, an update or a read waits for it. Its holder may have been stopped.
    DWORD databaseLockBound = 30000;

    // After a restart of the service: how long a call waits for another manager's open or reopening, and how often an
    // idle watcher checks for a new service.
    DWORD reopenBound = 10000;
    DWORD serviceLook = 2000;

    // Opening: the pause before a missing default printer is replaced, and how long a newly started desktop agent gets
    // to be ready (client kind 11, and the other kinds).
    DWORD defaultPrinterPause = 10000;
    DWORD agentReadyLong = 10000;
    DWORD agentReady = 500;

    // Requests to the printer side: the interval between two checks whether it is ready, and their number.
    DWORD readinessPause = 20;
    DWORD readinessPauses = 3;
    // Waiting for its answer: how often to look whether the service still answers. lateAnswerBound: how long to wait
    // for the answer to a requester that died, so that the next requester does not take it for its own, and the
    // interval between two looks for it.
    DWORD answerLook = 250;
    DWORD lateAnswerBound = 1000;
    DWORD lateAnswerPause = 10;
    // Asynchronous requests: how long a write waits for its turn, how long reads and writes wait for the answer, and
    // the pause while there is no memory for a result.
    DWORD requestLockBound = 5000;
    DWORD answerBound = 60000;
    DWORD memoryPause = 100;
    // How many of those pauses an owner spends waiting for memory before it gives up releasing its printer.
    DWORD releasePauses = 3;
    // Requests left to the printer's owner: the interval between two checks whether it has taken the previous one, and
    // how long to wait for that.
    DWORD relayPause = 20;
    DWORD relayBound = 10000;
    // How often the owner looks whether it still owns the printer and whether the windows that it serves are there, and
    // tries again what it could not do.
    DWORD relayLook = 1000;

    // Closing: the interval between two checks whether the other managers have ended, and their number.
    DWORD terminationPoll = 200;
    DWORD terminationPolls = 300;

    // The end of a process is not held up by a stopped service: detachCalls bounds its calls together, detachCall each
    // one beyond that as long as all are answered, detachThread a thread that may be in such a call, and detachBound
    // the calls of other threads that are still inside the library.
    DWORD detachCalls = 1200;
    DWORD detachCall = 100;
    DWORD detachThread = 50;
    DWORD detachBound = 2000;
    DWORD detachBoundOfStill = 500; // instead of detachBound once the service does not answer

    // Asking the product's windows to close: the interval between two checks whether one has gone, their number, and
    // the pause at the end.
    DWORD windowClosePoll = 100;
    DWORD windowClosePolls = 100;
    DWORD terminationPause = 1000;

    // How long the start of a manager's thread waits until the thread is at work.
    DWORD beginWait = 1000;

    // How long a thread gets to end before it is terminated: when its record is cancelled, when its manager closes (all
    // threads of the manager together). terminatedWait: until a terminated thread stands still.
    DWORD cancelWait = 3000;
    DWORD closeWait = 12000;
    DWORD terminatedWait = 3000;

    // How often a watcher tries again to make a watch that it could not make.
    DWORD watchRetry = 250;
};

extern Timings g_timings;

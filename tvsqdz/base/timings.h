// Every time limit and pause of the library, in milliseconds. Tests shorten them; nothing else changes them.
#pragma once

#include <windows.h>

struct Timings {
    // Waiting for the status database service under Windows NT: between two looks at its state. A wait hint that the
    // service announces is kept within the bounds, so that neither 0 nor "for ever" is taken at its word.
    DWORD servicePoll = 490;
    DWORD shortestWaitHint = 10;
    DWORD longestWaitHint = 60000;

    // The same under Windows 95/98/Me: between two looks for the start-up process or the service's window, and how long
    // a window that has just appeared is given until its process takes calls.
    DWORD startUpPoll = 500;
    DWORD windowPoll = 500;
    DWORD windowSettle = 3000;

    // Restarting the service there: between two looks at a window that was asked to close, how long to ask in all (a
    // process that does not close would hold every open of the machine), and how long a new process is given to show
    // its window before the call is made again.
    DWORD closePoll = 500;
    DWORD closeBound = 10000;
    DWORD restartPoll = 50;
    DWORD restartBound = 3000;

    // Waiting for a database that another process initialises: one slice, the pause when its event cannot be had, and
    // all slices together.
    DWORD initialisedSlice = 250;
    DWORD initialisedPause = 10;
    DWORD initialisedBound = 60000;

    // A manager whose service was started anew: how long a call waits for another manager's open or reopening before it
    // gives up; and how often a watcher that nobody tells anything looks whether there is a new service.
    DWORD reopenBound = 10000;
    DWORD serviceLook = 2000;

    // Opening: the pause before a default printer that does not exist is replaced, and how long a desktop agent that
    // was started is given to be ready (client kind 11, and the other kinds).
    DWORD defaultPrinterPause = 10000;
    DWORD agentReadyLong = 10000;
    DWORD agentReady = 500;

    // Requests to the printer side: between two looks whether it is ready, and how many.
    DWORD readinessPause = 20;
    DWORD readinessPauses = 3;
    // Waiting for its answer: the first slice and the longest, after each of which the result is looked at. Long enough
    // to cost nothing, short enough for a pulse that was missed. How long an answer to a requester that died is let
    // arrive, so that it is not taken for the next requester's.
    DWORD answerSlice = 10;
    DWORD longestAnswerSlice = 250;
    DWORD lateAnswerBound = 1000;
    // Asynchronous requests: how long a write waits for its turn, how long either waits for the answer, and the pause
    // while there is no memory for a result.
    DWORD requestLockBound = 5000;
    DWORD answerBound = 60000;
    DWORD memoryPause = 100;
    // How many of those pauses the owner of a printer waits for the memory to give it back.
    DWORD releasePauses = 3;
    // Requests left to the printer's owner: between two looks whether it has taken the one before, and how long one
    // that nobody takes is waited for.
    DWORD relayPause = 20;
    DWORD relayBound = 10000;
    // The owner looks whether it missed one that often.
    DWORD relaySlice = 1000;

    // Closing: between two looks whether the other managers have ended, and how many.
    DWORD terminationPoll = 200;
    DWORD terminationPolls = 300;

    // A process that ends is not held up by a service that stands still: how long its calls may take together, and how
    // long each may take beyond that, as long as all are answered. How long a thread that may be in such a call is
    // given to end once the service was found not to answer, and how long calls of other threads that are still on
    // their way through the library hold up the detach.
    DWORD detachCalls = 1200;
    DWORD detachCall = 100;
    DWORD detachThread = 50;
    DWORD detachBound = 2000;
    DWORD detachBoundOfStill = 500; // the latter when the service does not answer

    // Asking the product's windows to close: between two looks whether one has gone, and how many; and the pause after
    // all of it.
    DWORD windowClosePoll = 100;
    DWORD windowClosePolls = 100;
    DWORD terminationPause = 1000;

    // How long the start of a manager's thread waits for it to begin its work.
    DWORD beginWait = 1000;

    // How long a thread is given to end before it is terminated: when its record is cancelled, when its manager closes.
    DWORD cancelWait = 3000;
    DWORD closeWait = 12000;

    // How long after its start a watcher looks whether there was a write before it waited.
    DWORD firstLook = 50;

    // How long a default watcher stays awake after a delivery by event or message, and after a callback, before it
    // looks whether it missed a write.
    DWORD changeAwake = 200;
    DWORD callbackAwake = 1000;
};

extern Timings g_timings;

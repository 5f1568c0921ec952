/* Waits that remember, which Win32 does not have: a pulse between two waits is not lost; and threads that wait for
 * long. This layer's own. */
#ifndef ORIEL_WAIT_H
#define ORIEL_WAIT_H

#include <windef.h>

WINBASE_BEGIN

/* Of a wait that begins now, like those of synchapi.h. Not a position. */
#define ORIEL_FROM_NOW 0xFFFFFFFFU

/* Where a manual-reset event stands, and whether it is set now. The position moves by 2 at each pulse, and at each set
 * of an event that is not set; a reset does not move it. It wraps. The first position of an event is unspecified.
 * ERROR_INVALID_HANDLE: not an event, or one that resets automatically. ERROR_ACCESS_DENIED: the handle lacks
 * SYNCHRONIZE. */
WINBASEAPI BOOL WINAPI OrielEventPosition(HANDLE event, DWORD* position, BOOL* isSet);

/* As WaitForMultipleObjects for any of the objects, but a manual-reset event also releases the wait when it does not
 * stand at positions[i] any more, and of several objects any one may be returned. positions[i] is ORIEL_FROM_NOW for
 * all other objects, else ERROR_INVALID_PARAMETER.
 *
 *     DWORD position;
 *     OrielEventPosition(event, &position, &isSet);    // first, then look at what the event tells
 *     while (OrielWaitFrom(1, &event, &position, INFINITE) == WAIT_OBJECT_0) {
 *         OrielEventPosition(event, &position, &isSet);
 *         look();                                      // misses nothing, however long it takes
 *     }
 */
WINBASEAPI DWORD WINAPI OrielWaitFrom(DWORD count, const HANDLE* objects, const DWORD* positions, DWORD milliseconds);

#define ORIEL_WAIT_ROUSED 0x000000C0U /* the value of WAIT_IO_COMPLETION */

/* A wait for one named manual-reset event, from a position, that costs less at each wake: the thread sleeps on nothing
 * but the event, so whatever else it has to notice needs an OrielRouse. WAIT_OBJECT_0, WAIT_TIMEOUT, or
 * ORIEL_WAIT_ROUSED after an OrielRouse of this thread, which may have come before the wait; several may be one.
 * WAIT_FAILED: as OrielWaitFrom; ERROR_INVALID_PARAMETER for an unnamed event. */
WINBASEAPI DWORD WINAPI OrielSleepFrom(HANDLE event, DWORD position, DWORD milliseconds);

/* Ends the OrielSleepFrom that the thread is in, or its next one. Returns when the thread is awake; it may not be if it
 * gets no processor within a second. ERROR_INVALID_HANDLE: not a thread. */
WINBASEAPI BOOL WINAPI OrielRouse(HANDLE thread);

/* A step that waiting threads do. Short; it must not wait for anything, nor end itself. It may set events. */
typedef void(WINAPI* ORIEL_WAIT_STEP)(void* context);

/* Whoever waits for `event` in this process is woken when `signal`, another event, is set or pulsed too, calls
 * step(context), and looks at `event` again: so the news of `signal` comes without the detour through a thread that
 * waits for it and sets `event`. That thread is needed still: nobody may be waiting, and a signal between two waits
 * does no step. Steps of an event do not overlap. A wait for 64 objects does none.
 *
 * Returns a handle; no step is called any more when CloseHandle has returned. NULL: ERROR_INVALID_HANDLE,
 * ERROR_ACCESS_DENIED, ERROR_INVALID_PARAMETER (no step, or both events are one), ERROR_ALREADY_EXISTS (the event has a
 * step), ERROR_NOT_ENOUGH_MEMORY, ERROR_NO_SYSTEM_RESOURCES. */
WINBASEAPI HANDLE WINAPI OrielStepInWait(HANDLE event, HANDLE signal, ORIEL_WAIT_STEP step, void* context);

/* For a thread that is likely to sleep for long: gives back the memory of the stack that it does not use, and its
 * connections to RPC servers, which other threads of the process may use; a few are kept for them. The thread has them
 * again when it needs them. */
WINBASEAPI void WINAPI OrielRestThread(void);

WINBASE_END

#endif

/* What Linux event loops need and Win32 does not have: descriptors for poll, select and epoll. This layer's own. */
#ifndef ORIEL_POLL_H
#define ORIEL_POLL_H

#include <windef.h>

WINBASE_BEGIN

/* A descriptor that polls readable while PeekMessageA of the calling thread has something to do: a message, WM_QUIT or
 * a sent message to answer. After it became readable call PeekMessageA with PM_REMOVE until it returns FALSE. The same
 * descriptor for the whole life of the thread; it belongs to the layer: poll it, never read or close it.
 * -1 on failure: ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY. */
WINBASEAPI int WINAPI OrielWindowQueueDescriptor(void);

/* The most event descriptors that a process has at a time. */
#define ORIEL_MAX_EVENT_DESCRIPTORS 63

/* A descriptor that becomes readable when the event is set, and stays so until it is re-armed. A thread of the layer's
 * waits for the event, with a handle of its own: an auto-reset event is reset by that, the caller's handle may be
 * closed at any time, a named event lives as long as the descriptor. A set that lasts is never missed; a pulse, or a
 * set that is reset at once, can be while that thread turns from one wait to the next. -1 on failure:
 * ERROR_INVALID_HANDLE (not an event), ERROR_ACCESS_DENIED (the handle lacks SYNCHRONIZE), ERROR_NOT_ENOUGH_QUOTA (too
 * many), ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY. A fork child has none of them.
 *
 *     int descriptor = OrielEventDescriptor(changed);
 *     poll(...);                               // readable: the event was signalled
 *     ResetEvent(changed);                     // a manual-reset event only
 *     OrielRearmEventDescriptor(descriptor);   // first re-arm, then look at what changed: nothing is missed
 */
WINBASEAPI int WINAPI OrielEventDescriptor(HANDLE event);

/* Makes the descriptor unreadable and waits for the event again. A manual-reset event that is still set makes it
 * readable again. ERROR_INVALID_HANDLE: not a descriptor of OrielEventDescriptor, or its event, a named one, has been
 * spoilt by another user. */
WINBASEAPI BOOL WINAPI OrielRearmEventDescriptor(int descriptor);

/* Ends the waiting and closes the descriptor (never close it with close()). ERROR_INVALID_HANDLE. */
WINBASEAPI BOOL WINAPI OrielCloseEventDescriptor(int descriptor);

WINBASE_END

#endif

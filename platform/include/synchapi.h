/* Events, mutexes, critical sections, waits and the clock.
 *
 * Names. Up to 250 bytes (characters that a file name cannot hold count three), case-sensitive, one namespace for all
 * kinds of objects and all users of the machine. "Global\" before a name changes nothing; any other backslash is
 * refused. NULL or "" makes an unnamed object, private to the process.
 *
 * Security. Attributes that give Everyone GENERIC_ALL (or hold a null DACL) let every user of the machine use the
 * object; others, and none, only the creating user (and root). Whoever may use a named object may also disturb it: its
 * state is in a file that all of its users write, and one that cuts this file short crashes those who look at it next.
 *
 * Lifetime. An object lives as long as a process has a handle of it. Processes that die release theirs. A fork child
 * does not keep its parent's objects, mutexes or handles; it has none of its own until it makes some. (That holds for
 * fork(), not for a bare clone system call.)
 *
 * Termination. A thread that TerminateThread ends leaves critical sections locked, and its mutexes abandoned. */
#ifndef ORIEL_SYNCHAPI_H
#define ORIEL_SYNCHAPI_H

#include <minwinbase.h>
#include <sharedmem.h>
#include <winerror.h>

/* clang checks with -Wthread-safety that what a lock guards is touched under it. */
#if defined(__clang__)
#define ORIEL_LOCK_CHECK(attribute) __attribute__((attribute))
#else
#define ORIEL_LOCK_CHECK(attribute)
#endif

WINBASE_BEGIN

#define INFINITE 0xFFFFFFFFU
#define MAXIMUM_WAIT_OBJECTS 64
#define WAIT_OBJECT_0 0
#define WAIT_ABANDONED 0x00000080
#define WAIT_ABANDONED_0 0x00000080
#define WAIT_FAILED 0xFFFFFFFFU

/* An event is set or not. A manual-reset event stays set until it is reset; an automatic one lets one waiter through
 * and is then reset.
 *
 * With a name that exists the existing object is opened, with all rights; its kind of reset and state stay as they are.
 * The last error is then ERROR_ALREADY_EXISTS, and 0 after a creation.
 * NULL on failure: ERROR_INVALID_HANDLE (the name belongs to another kind of object), ERROR_ACCESS_DENIED,
 * ERROR_FILENAME_EXCED_RANGE (name too long), ERROR_PATH_NOT_FOUND (backslash; no run directory), ERROR_TIMEOUT
 * (another process held up the creation of objects for five seconds), ERROR_NO_SYSTEM_RESOURCES,
 * ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY. attributes: bInheritHandle must be FALSE, else
 * ERROR_NOT_SUPPORTED. */
WINBASEAPI HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                                      LPCSTR name);

/* access: SYNCHRONIZE to wait, EVENT_MODIFY_STATE to set, reset and pulse; also generic rights and MAXIMUM_ALLOWED.
 * ERROR_ACCESS_DENIED for access 0 and for unknown bits, ERROR_FILE_NOT_FOUND when there is no such name,
 * ERROR_INVALID_PARAMETER for no name; else as CreateEventA. inherit must be FALSE. */
WINBASEAPI HANDLE WINAPI OpenEventA(DWORD access, BOOL inherit, LPCSTR name);

/* A thread whose wait began before the event was set is let through, even when a reset follows at once; of those that
 * wait for an automatic event, one. ERROR_ACCESS_DENIED without EVENT_MODIFY_STATE, ERROR_NOACCESS when the object's
 * file has been cut short. */
WINBASEAPI BOOL WINAPI SetEvent(HANDLE event);
WINBASEAPI BOOL WINAPI ResetEvent(HANDLE event);

/* Lets through whoever waits at this moment, and leaves the event not set. Manual-reset events only, else
 * ERROR_NOT_SUPPORTED. */
WINBASEAPI BOOL WINAPI PulseEvent(HANDLE event);

/* A mutex is owned by one thread, which may acquire it again and must release it as often. When the owner's thread or
 * process ends, the next owner's wait returns WAIT_ABANDONED, once: for the end of a thread at once, for that of a
 * process within about 50 ms of the system's own clean-up. initialOwner is ignored when the mutex exists. Results as
 * those of CreateEventA. */
WINBASEAPI HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES attributes, BOOL initialOwner, LPCSTR name);

/* access: SYNCHRONIZE to wait. Results as those of OpenEventA. */
WINBASEAPI HANDLE WINAPI OpenMutexA(DWORD access, BOOL inherit, LPCSTR name);

/* ERROR_NOT_OWNER when the calling thread does not own it. Needs no right of the handle. */
WINBASEAPI BOOL WINAPI ReleaseMutex(HANDLE mutex);

/* Waits for an event that is set, a mutex that can be had, a thread or process that has ended; milliseconds 0 only
 * looks, INFINITE has no limit. Signals do not disturb the wait. WAIT_OBJECT_0, WAIT_ABANDONED (a mutex, owned now),
 * WAIT_TIMEOUT: the last error is left alone. WAIT_FAILED: ERROR_INVALID_HANDLE, ERROR_ACCESS_DENIED (the handle lacks
 * SYNCHRONIZE), ERROR_MUTANT_LIMIT_EXCEEDED. */
WINBASEAPI DWORD WINAPI WaitForSingleObject(HANDLE object, DWORD milliseconds);

/* The first of 1 to 64 objects, the lowest index when several are ready; the result is WAIT_OBJECT_0 + index or
 * WAIT_ABANDONED_0 + index. A handle may occur twice. waitAll must be FALSE, else ERROR_NOT_SUPPORTED;
 * ERROR_INVALID_PARAMETER for another count. */
WINBASEAPI DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* objects, BOOL waitAll, DWORD milliseconds);

/* 0 gives up the processor; INFINITE never returns. */
WINBASEAPI void WINAPI Sleep(DWORD milliseconds);

/* Milliseconds since the machine started; wraps after 49.7 days. */
WINBASEAPI DWORD WINAPI GetTickCount(void);

/* A lock of one process, owned by a thread, recursive. Its fields are the layer's own. Waiting for it has no time
 * limit: the owner is a thread of the same process. */
typedef struct ORIEL_LOCK_CHECK(capability("critical section")) _CRITICAL_SECTION {
    LONG LockWord;
    LONG RecursionCount;
    DWORD OwningThread;
    DWORD Reserved;
} CRITICAL_SECTION, *PCRITICAL_SECTION, *LPCRITICAL_SECTION;

WINBASEAPI void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION section);
WINBASEAPI void WINAPI EnterCriticalSection(LPCRITICAL_SECTION section) ORIEL_LOCK_CHECK(acquire_capability(*section));
WINBASEAPI BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION section)
    ORIEL_LOCK_CHECK(try_acquire_capability(TRUE, *section));
WINBASEAPI void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION section) ORIEL_LOCK_CHECK(release_capability(*section));
WINBASEAPI void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section);

WINBASE_END

#endif

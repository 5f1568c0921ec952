/* Handles of kernel objects: events, mutexes, threads, processes, shared memory, files.
 *
 * A handle's value is a multiple of 4 that fits 32 bits; its two low bits are ignored. A value that was closed, or was
 * never a handle, or designates an object of another kind, gives ERROR_INVALID_HANDLE. Handles belong to the process: a
 * fork child has none of its parent's. */
#ifndef ORIEL_HANDLEAPI_H
#define ORIEL_HANDLEAPI_H

#include <winerror.h>
#include <winnt.h>

WINBASE_BEGIN

/* FALSE and ERROR_INVALID_HANDLE for what is no handle. A thread that waits for the object goes on waiting. Closing the
 * last handle of a named object removes its name. Pseudo handles may be closed, without effect. */
WINBASEAPI BOOL WINAPI CloseHandle(HANDLE object);

WINBASE_END

#endif

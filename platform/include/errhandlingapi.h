/* The last error of a thread.
 *
 * Every thread has one, 0 at first. A call that fails sets it; a call that succeeds leaves it alone unless its own
 * description says otherwise (CreateEventA and its like report ERROR_ALREADY_EXISTS on success). */
#ifndef ORIEL_ERRHANDLINGAPI_H
#define ORIEL_ERRHANDLINGAPI_H

#include <winerror.h>
#include <winnt.h>

WINBASE_BEGIN

WINBASEAPI DWORD WINAPI GetLastError(void);
WINBASEAPI void WINAPI SetLastError(DWORD code);

WINBASE_END

#endif

/* Modules of the process. */
#ifndef ORIEL_LIBLOADERAPI_H
#define ORIEL_LIBLOADERAPI_H

#include <windef.h>

WINBASE_BEGIN

/* The full name of the process's executable, with backslashes, in the ANSI code page. module must be NULL
 * (ERROR_MOD_NOT_FOUND).
 *
 * Returns the characters without the NUL. A name that does not fit is cut: then size is returned, the buffer is full
 * with a NUL as its last character, and the last error is ERROR_INSUFFICIENT_BUFFER (as since Windows Vista). 0 on
 * failure. */
WINBASEAPI DWORD WINAPI GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size);

/* Thread notifications do not exist here: always TRUE for a module, FALSE with ERROR_MOD_NOT_FOUND for NULL. */
WINBASEAPI BOOL WINAPI DisableThreadLibraryCalls(HMODULE module);

WINBASE_END

#endif

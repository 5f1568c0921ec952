/* The fault guard: copying from and to memory that may not be there.
 *
 * process must be GetCurrentProcess(); any other is refused (ERROR_NOT_SUPPORTED; NULL: ERROR_INVALID_HANDLE).
 *
 * Page protection is honoured both ways; no signal handler is installed. The guard tells whether memory can be
 * accessed now, not whether it is the right memory: a block that was freed but is still mapped reads fine. What lies in
 * the calling thread's own live stack, or for reading in the constants of the main program, is copied without a system
 * call.
 *
 * The side of the caller's own buffer is trusted: it must be accessible. */
#ifndef ORIEL_MEMORYAPI_H
#define ORIEL_MEMORYAPI_H

#include <windef.h>

WINBASE_BEGIN

/* Copies size bytes from baseAddress, which may be any value, to buffer. FALSE when not all of them can be read:
 * ERROR_PARTIAL_COPY when a first part could, ERROR_NOACCESS when nothing could. bytesRead may be NULL; it receives the
 * bytes that are in buffer, which after a failure may be fewer than those that were readable. What lies in buffer
 * behind them is undefined. */
WINBASEAPI BOOL WINAPI ReadProcessMemory(HANDLE process, LPCVOID baseAddress, LPVOID buffer, SIZE_T size,
                                         SIZE_T* bytesRead);

/* Copies size bytes from buffer to baseAddress, which may be any value. FALSE when not all of them can be written, with
 * the errors of ReadProcessMemory; a first part may then have been written, and bytesWritten (may be NULL) tells how
 * many bytes. Read-only pages are not written. */
WINBASEAPI BOOL WINAPI WriteProcessMemory(HANDLE process, LPVOID baseAddress, LPCVOID buffer, SIZE_T size,
                                          SIZE_T* bytesWritten);

WINBASE_END

#endif

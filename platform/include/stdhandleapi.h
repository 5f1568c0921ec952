/* The standard streams, as far as telling whether one is a terminal needs them. */
#ifndef ORIEL_STDHANDLEAPI_H
#define ORIEL_STDHANDLEAPI_H

#include <windef.h>

WINBASE_BEGIN

#define STD_INPUT_HANDLE ((DWORD)-10)
#define STD_OUTPUT_HANDLE ((DWORD)-11)
#define STD_ERROR_HANDLE ((DWORD)-12)

/* A pseudo handle of descriptor 0, 1 or 2: for GetConsoleMode alone, and never closed. NULL when the descriptor is
 * closed, INVALID_HANDLE_VALUE with ERROR_INVALID_PARAMETER for another number. */
WINBASEAPI HANDLE WINAPI GetStdHandle(DWORD stdHandle);

/* TRUE when the stream is a terminal; *mode is then 0, since none of its modes can be asked or set here. FALSE with
 * ERROR_INVALID_HANDLE for anything else. */
WINBASEAPI BOOL WINAPI GetConsoleMode(HANDLE consoleHandle, LPDWORD mode);

WINBASE_END

#endif

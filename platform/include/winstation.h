/* The window station of the process. winuser.h includes this header. */
#ifndef ORIEL_WINSTATION_H
#define ORIEL_WINSTATION_H

#include <windef.h>

#define UOI_NAME 2

WINBASE_BEGIN

/* The station of the process: a pseudo handle that needs no closing. A process with a display (DISPLAY or
 * WAYLAND_DISPLAY) is in "WinSta0", any other in that of a service, "Service-0x0-" with the hexadecimal number of its
 * user and "$". The environment variable ORIEL_WINDOW_STATION gives it another name; "none" stands for a process
 * without a station: NULL with ERROR_ACCESS_DENIED. All three are read at each call. */
WINBASEAPI HWINSTA WINAPI GetProcessWindowStation(void);

/* index must be UOI_NAME: information receives the name with its NUL, lengthNeeded (may be NULL) its bytes with the
 * NUL. FALSE with ERROR_INSUFFICIENT_BUFFER when length is too small, ERROR_INVALID_HANDLE for anything but the
 * station. */
WINBASEAPI BOOL WINAPI GetUserObjectInformationA(HANDLE object, int index, PVOID information, DWORD length,
                                                 LPDWORD lengthNeeded);

WINBASE_END

#endif

/* For a program that stays on the user's desktop when the one that started it has gone. Windows needs no such calls: a
 * process there holds nothing of the one that created it, and is ended when its user logs off. This layer's own. */
#ifndef ORIEL_DESKTOP_H
#define ORIEL_DESKTOP_H

#include <windef.h>

WINBASE_BEGIN

/* Goes on as a process that nobody waits for: it has another parent, a session of its own, "/" as its directory and
 * /dev/null for its standard streams. The process that was started ends with exit code 0. To be called before other
 * threads are started. FALSE: ERROR_NOT_ENOUGH_MEMORY and the like. */
WINBASEAPI BOOL WINAPI OrielLeaveCreator(void);

/* Whether this process has a desktop that still lives. FALSE when its window station is not "WinSta0", and when nobody
 * takes connections to its display any more: the Wayland compositor that WAYLAND_DISPLAY names, else the X server of
 * DISPLAY. TRUE when that cannot be told: no display is named, it is on another machine, or it does not answer within a
 * second. */
WINBASEAPI BOOL WINAPI OrielDesktopLives(void);

WINBASE_END

#endif

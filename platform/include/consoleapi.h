/* What the terminal or a stop request tells a program. */
#ifndef ORIEL_CONSOLEAPI_H
#define ORIEL_CONSOLEAPI_H

#include <winerror.h>
#include <winnt.h>

WINBASE_BEGIN

#define CTRL_C_EVENT 0
#define CTRL_BREAK_EVENT 1

/* TRUE: dealt with, no other handler is asked. */
typedef BOOL(WINAPI* PHANDLER_ROUTINE)(DWORD event);

/* SIGINT is CTRL_C_EVENT, SIGTERM is CTRL_BREAK_EVENT. Handlers run one event after another on a thread of their own,
 * the one added last first; when none deals with the event the process ends as the signal would have ended it. Until
 * the first handler is added, and again when the last one is removed, the process's own handling of the two signals is
 * untouched. FALSE: ERROR_NOT_SUPPORTED (no handler given), ERROR_INVALID_PARAMETER (removing one that was not added).
 */
WINBASEAPI BOOL WINAPI SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add);

WINBASE_END

#endif

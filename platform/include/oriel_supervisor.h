/* A program that runs for long tells the supervisor that started it how it fares: what systemd and others take by
 * sd_notify(3). This layer's own; a service of the service control manager needs no call, for its status is told. */
#ifndef ORIEL_SUPERVISOR_H
#define ORIEL_SUPERVISOR_H

#include <windef.h>

WINBASE_BEGIN

/* Sends one line, such as "READY=1", "STOPPING=1" or "STATUS=...", to the socket that NOTIFY_SOCKET names. Without one,
 * or when its reader takes nothing, nothing happens. The first call takes NOTIFY_SOCKET out of the environment: it is
 * this process that the supervisor watches, not what it starts. Called before other threads are started. */
WINBASEAPI void WINAPI OrielTellSupervisor(LPCSTR line);

WINBASE_END

#endif

/* What the RPC run-time of Windows does not have. This layer's own. */
#ifndef ORIEL_REPLY_H
#define ORIEL_REPLY_H

#include <windef.h>

WINBASE_BEGIN

/* In a dispatch function: runs the step once on the same thread when the reply has been sent, or could not be, and
 * before the client's next call. Of several steps of a call the last one counts. FALSE with ERROR_INVALID_FUNCTION when
 * the thread has no call in progress. */
WINBASEAPI BOOL WINAPI OrielAfterReply(void(WINAPI* step)(void));

WINBASE_END

#endif

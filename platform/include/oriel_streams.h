/* Standard output that nobody reads any more. This layer's own: on Windows a write to a closed pipe is an error, on Linux
 * it ends the process unless that was told otherwise. */
#ifndef ORIEL_STREAMS_H
#define ORIEL_STREAMS_H

#include <windef.h>

WINBASE_BEGIN

/* From now on a write to a closed pipe fails in this process and ends nothing. Processes that it starts are not affected. */
WINBASEAPI void WINAPI OrielFailOnClosedPipes(void);

WINBASE_END

#endif

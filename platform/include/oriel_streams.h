/* The standard streams. This layer's own: on Windows a write to a closed pipe is an error, on Linux it ends the process
 * unless that was told otherwise; and Linux has a journal. */
#ifndef ORIEL_STREAMS_H
#define ORIEL_STREAMS_H

#include <windef.h>

WINBASE_BEGIN

/* From now on a write to a closed pipe fails in this process and ends nothing. Processes that it starts are not affected. */
WINBASEAPI void WINAPI OrielFailOnClosedPipes(void);

/* Whether standard error is the stream of systemd's journal that JOURNAL_STREAM names (systemd.exec(5)): the journal reads
 * a priority such as "<4>" in front of a line (sd-daemon(3)). */
WINBASEAPI BOOL WINAPI OrielErrorsGoToJournal(void);

WINBASE_END

#endif

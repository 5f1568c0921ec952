/* A word of shared memory that tells whether the process that wrote it still lives. Win32 has the process's handle for
 * this, which not every user may open, and which costs a system call at each look. This layer's own. */
#ifndef ORIEL_LIFE_H
#define ORIEL_LIFE_H

#include <windef.h>

WINBASE_BEGIN

/* Set in the word by the system when the process has ended, in whatever way. */
#define ORIEL_LIFE_ENDED 0x40000000U

/* Sets the word, which is then not 0 and lacks ORIEL_LIFE_ENDED for as long as this process lives. The word lies in a
 * writable view, aligned to 4 bytes; whoever sees the memory may look at it. One word for each process: a second call
 * fails with ERROR_ALREADY_EXISTS. ERROR_INVALID_PARAMETER, ERROR_NO_SYSTEM_RESOURCES: no thread can be started, or the
 * kernel does not keep such words. A fork child has no word. */
WINBASEAPI BOOL WINAPI OrielTellLife(DWORD* word);

WINBASE_END

#endif

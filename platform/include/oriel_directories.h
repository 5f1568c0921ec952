/* Where the layer keeps its files: a question that Windows does not have. This layer's own. */
#ifndef ORIEL_DIRECTORIES_H
#define ORIEL_DIRECTORIES_H

#include <windef.h>

WINBASE_BEGIN

/* The state directory (registry and spool; it survives a restart of the machine) and the run directory (sockets and
 * kernel objects), as Unix paths in the encoding of the file system, made when they were missing. An empty string: they
 * cannot be made or are not safe to use. The environment variables ORIEL_STATE_DIR and ORIEL_RUNTIME_DIR name them. The
 * strings stay valid for the process's life. */
WINBASEAPI const char* WINAPI OrielStateDirectory(void);
WINBASEAPI const char* WINAPI OrielRuntimeDirectory(void);

WINBASE_END

#endif

/* Where the layer keeps its files: a question that Windows does not have. This layer's own.
 *
 * There are two directories: the state directory (registry and spool; it survives a restart of the machine) and the run
 * directory (sockets and kernel objects). The environment variables ORIEL_STATE_DIR and ORIEL_RUNTIME_DIR name them.
 * Otherwise they are those of a scope: "system" (/var/lib/oriel and /run/oriel) or "user" (the user's own, below
 * XDG_STATE_HOME and XDG_RUNTIME_DIR). ORIEL_SCOPE names the scope. Without it a process takes the user's own
 * directories while a product is up there; else the system's, for root always and for others where /var/lib/oriel
 * exists; else the user's own. */
#ifndef ORIEL_DIRECTORIES_H
#define ORIEL_DIRECTORIES_H

#include <windef.h>

WINBASE_BEGIN

/* Unix paths in the encoding of the file system, whether or not something is there; empty where there is no safe place.
 * The strings stay valid for the process's life. */
WINBASEAPI const char* WINAPI OrielStateDirectory(void);
WINBASEAPI const char* WINAPI OrielRuntimeDirectory(void);

/* "system", "user"; "" where an environment variable names a directory; null where ORIEL_SCOPE is neither. */
WINBASEAPI const char* WINAPI OrielScope(void);
/* Chooses "system" or "user" over ORIEL_SCOPE. FALSE for other texts, and once the directories have been found:
 * libraries ask for them as they are loaded. */
WINBASEAPI BOOL WINAPI OrielChooseScope(const char* scope);

/* From now on this process makes no run directory and no folders in it: named objects, endpoints and windows can be had
 * where these are there already. For programs that only look. */
WINBASEAPI void WINAPI OrielOnlyLook(void);
/* Makes the directories, and marks them as in use until this process ends. Processes that it starts use the same. For
 * the program that starts the product. FALSE with the last error set. */
WINBASEAPI BOOL WINAPI OrielClaimDirectories(void);
/* Removes what others left in the folders where everybody may put files: for a program of root that runs all the time,
 * every few seconds. */
WINBASEAPI void WINAPI OrielTidyDirectories(void);

WINBASE_END

#endif

/* The object server: the process that named events, mutexes and sections belong to. Processes start it when they need
 * it (the program "oriel/oriel-objects" beside this library). This layer's own. */
#ifndef ORIEL_OBJECTS_H
#define ORIEL_OBJECTS_H

#include <windef.h>

WINBASE_BEGIN

/* Kinds of objects. */
#define ORIEL_OBJECT_MANUAL_EVENT 1
#define ORIEL_OBJECT_AUTO_EVENT 2
#define ORIEL_OBJECT_MUTEX 3
#define ORIEL_OBJECT_SECTION 4

/* What users may do who neither made the object nor run the server; root may do everything too. */
#define ORIEL_OTHERS_NOTHING 0
#define ORIEL_OTHERS_READ 1 /* wait for the event, read the section */
#define ORIEL_OTHERS_ALL 2

/* Names that only objects of one kind may have, with the rights given here, whatever their maker asks for. */
typedef struct {
    const char* pattern; /* without "Global\"; * stands for any text */
    DWORD kind;
    DWORD others;
    BOOL ownerMakes; /* only the user who runs the server, and root, may make such an object */
} ORIEL_RESERVED_NAME;

/* Serves the named objects of a run directory until nobody has been connected for two seconds, or the directory is
 * gone; with `stays`, until it is killed. The first rule that a name matches counts. The call returns 0 in the calling
 * process as soon as clients can connect; the server goes on in two processes of its own. Else a Win32 error:
 * ERROR_SERVICE_ALREADY_RUNNING, ERROR_NOT_ENOUGH_MEMORY, or what keeps it from listening in the directory. Called in a
 * process with one thread, which has to end with _exit. */
WINBASEAPI DWORD WINAPI OrielServeObjects(LPCSTR runDirectory, BOOL stays, const ORIEL_RESERVED_NAME* rules,
                                          DWORD count);

WINBASE_END

#endif

/* Programs of one product, which lie beside each other. This layer's own: Windows cannot replace the program of a
 * process. */
#ifndef ORIEL_PROGRAMS_H
#define ORIEL_PROGRAMS_H

#include <windef.h>

WINBASE_BEGIN

/* Runs the program of that name, in the folder of the present one, in this process: same id, streams and environment. name:
 * without a slash. arguments: in the encoding of the file system, those behind the program's name, with a null at the end.
 * Returns only when it cannot be run: FALSE with the last error set. */
WINBASEAPI BOOL WINAPI OrielReplaceProgram(LPCSTR name, LPSTR const* arguments);

WINBASE_END

#endif

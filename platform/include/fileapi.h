/* Files, as far as finding out whether one is there needs them. */
#ifndef ORIEL_FILEAPI_H
#define ORIEL_FILEAPI_H

#include <minwinbase.h>

#define OPEN_EXISTING 3
#define FILE_FLAG_NO_BUFFERING 0x20000000

WINBASE_BEGIN

/* Opens an existing file. The name is in the ANSI code page, with backslashes; a drive letter is dropped, for there is
 * one tree. Names are compared as the file system below does it, usually with case.
 *
 * access       GENERIC_READ
 * shareMode    FILE_SHARE_READ
 * security     NULL
 * disposition  OPEN_EXISTING
 * attributes   0, FILE_ATTRIBUTE_NORMAL, FILE_FLAG_NO_BUFFERING (which changes nothing, since nothing is read)
 * templateFile NULL
 *
 * Anything else is ERROR_INVALID_PARAMETER. The handle is closed with CloseHandle; no call reads from it. Returns
 * INVALID_HANDLE_VALUE with ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED (a directory too),
 * ERROR_INVALID_NAME, ERROR_FILENAME_EXCED_RANGE or ERROR_TOO_MANY_OPEN_FILES. */
WINBASEAPI HANDLE WINAPI CreateFileA(LPCSTR fileName, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
                                     DWORD disposition, DWORD attributes, HANDLE templateFile);

WINBASE_END

#endif

/* Named blocks of memory that processes share.
 *
 * Names and security are those of events and mutexes (synchapi.h), and share their namespace. A block is zero when it
 * is first created, and gone with its last handle and view in any process. */
#ifndef ORIEL_SHAREDMEM_H
#define ORIEL_SHAREDMEM_H

#include <minwinbase.h>
#include <winerror.h>

WINBASE_BEGIN

#define SECTION_MAP_WRITE 0x0002
#define SECTION_MAP_READ 0x0004
#define FILE_MAP_WRITE SECTION_MAP_WRITE
#define FILE_MAP_READ SECTION_MAP_READ

/* file: INVALID_HANDLE_VALUE (memory, no file). protection: PAGE_READWRITE. Size: 1 byte to 1 MiB, of the first
 * creator; a later one gets the existing block, with its size, and the last error ERROR_ALREADY_EXISTS (0 otherwise).
 * NULL on failure: ERROR_NOT_SUPPORTED (a file, another protection, no name), ERROR_INVALID_PARAMETER (size), and the
 * errors of CreateEventA. Attributes that give Everyone GENERIC_READ let other users read the block, and nobody but the
 * creating user (and root) write it or cut its file short. */
WINBASEAPI HANDLE WINAPI CreateFileMappingA(HANDLE file, LPSECURITY_ATTRIBUTES attributes, DWORD protection,
                                            DWORD sizeHigh, DWORD sizeLow, LPCSTR name);

/* access: FILE_MAP_READ, or FILE_MAP_WRITE to write too, which is denied while this process has the block open for
 * reading alone. NULL on failure: as OpenEventA. */
WINBASEAPI HANDLE WINAPI OpenFileMappingA(DWORD access, BOOL inherit, LPCSTR name);

/* access: FILE_MAP_WRITE (reading included) or FILE_MAP_READ. Offsets: 0. bytes: 0 for the whole block.
 * The view keeps the block alive after its handle is closed. NULL on failure: ERROR_INVALID_HANDLE,
 * ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED (more bytes than the block has, a right that the handle lacks). */
WINBASEAPI LPVOID WINAPI MapViewOfFile(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes);

/* address: as MapViewOfFile gave it, else ERROR_INVALID_ADDRESS. */
WINBASEAPI BOOL WINAPI UnmapViewOfFile(LPCVOID address);

WINBASE_END

#endif

/* Private heaps.
 *
 * A heap keeps track of its blocks, so that destroying it frees whatever was left. Blocks are aligned to 16 bytes. Any
 * thread may use any heap. As on Windows, an allocation that fails answers NULL and leaves the last error alone. */
#ifndef ORIEL_HEAPAPI_H
#define ORIEL_HEAPAPI_H

#include <windef.h>
#include <winnt.h>

WINBASE_BEGIN

/* Makes a heap that grows without bound. options and maximumSize must be 0 (ERROR_INVALID_PARAMETER); initialSize, in
 * bytes, is a hint. NULL on failure. */
WINBASEAPI HANDLE WINAPI HeapCreate(DWORD options, SIZE_T initialSize, SIZE_T maximumSize);

/* Frees the heap and every block of it. No other thread may be using the heap. FALSE with ERROR_INVALID_HANDLE when it
 * is not a heap. */
WINBASEAPI BOOL WINAPI HeapDestroy(HANDLE heap);

/* flags: 0 or HEAP_ZERO_MEMORY; others are refused. A block of 0 bytes is a block. NULL on failure. */
WINBASEAPI LPVOID WINAPI HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);

/* flags: 0. NULL may be freed. FALSE with ERROR_INVALID_PARAMETER when the block is visibly not one of this heap. */
WINBASEAPI BOOL WINAPI HeapFree(HANDLE heap, DWORD flags, LPVOID block);

WINBASE_END

#endif

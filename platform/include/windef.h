/* Basic Win32 types, with the sizes that they have on Windows whatever the data model of the system below.
 *
 * On Windows the same include line reaches the toolchain's own header. Handles are pointer-wide, but their values fit 32
 * bits. WCHAR is a UTF-16 code unit. Calling conventions are empty. */
#ifndef ORIEL_WINDEF_H
#define ORIEL_WINDEF_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#ifdef __cplusplus
#define WINBASE_BEGIN extern "C" {
#define WINBASE_END }
#else
#define WINBASE_BEGIN
#define WINBASE_END
#endif

#define WINAPI
#define CALLBACK
#define APIENTRY WINAPI
/* Every function of the layer carries it: the layer is built with hidden visibility. */
#define WINBASEAPI __attribute__((visibility("default")))

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260
#define CONST const

typedef int BOOL;
typedef int INT;
typedef unsigned int UINT;
typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef int16_t SHORT;
typedef uint16_t USHORT;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef uint64_t DWORDLONG;
typedef char CHAR;
typedef unsigned char UCHAR;
typedef char16_t WCHAR;
typedef intptr_t LONG_PTR;
typedef uintptr_t ULONG_PTR;
typedef uintptr_t UINT_PTR;
typedef intptr_t INT_PTR;
typedef uintptr_t DWORD_PTR;
typedef size_t SIZE_T;
typedef void VOID;

typedef void* PVOID;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef BOOL* PBOOL;
typedef BOOL* LPBOOL;
typedef BYTE* PBYTE;
typedef BYTE* LPBYTE;
typedef WORD* PWORD;
typedef DWORD* PDWORD;
typedef DWORD* LPDWORD;
typedef LONG* PLONG;
typedef LONG* LPLONG;
typedef ULONG* PULONG;
typedef CHAR* PSTR;
typedef CHAR* LPSTR;
typedef const CHAR* PCSTR;
typedef const CHAR* LPCSTR;
typedef WCHAR* PWSTR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* PCWSTR;
typedef const WCHAR* LPCWSTR;

typedef void* HANDLE;
typedef HANDLE* PHANDLE;
typedef HANDLE* LPHANDLE;
typedef HANDLE HINSTANCE;
typedef HANDLE HMODULE;
typedef INT_PTR(WINAPI* FARPROC)(void);
typedef HANDLE HWND;
typedef HANDLE HWINSTA;
typedef HANDLE HLOCAL;

typedef UINT_PTR WPARAM;
typedef LONG_PTR LPARAM;
typedef LONG_PTR LRESULT;

typedef struct _FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME, *PFILETIME, *LPFILETIME;

typedef struct _GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
} GUID;

#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)
#define HandleToULong(h) ((ULONG)(ULONG_PTR)(h))
#define HandleToUlong(h) HandleToULong(h)
#define ULongToHandle(ul) ((HANDLE)(ULONG_PTR)(ULONG)(ul))
#define UlongToHandle(ul) ULongToHandle(ul)

#define LOWORD(l) ((WORD)((DWORD_PTR)(l)&0xffff))
#define HIWORD(l) ((WORD)(((DWORD_PTR)(l) >> 16) & 0xffff))
#define MAKELONG(a, b) ((LONG)(((WORD)(a)) | ((DWORD)((WORD)(b))) << 16))

#ifdef __cplusplus
static_assert(sizeof(DWORD) == 4 && sizeof(LONG) == 4 && sizeof(WCHAR) == 2 && sizeof(GUID) == 16);
#endif

#endif

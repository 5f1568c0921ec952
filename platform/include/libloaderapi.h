/* Modules of the process. A module is known by the address at which it is loaded. */
#ifndef ORIEL_LIBLOADERAPI_H
#define ORIEL_LIBLOADERAPI_H

#include <windef.h>

WINBASE_BEGIN

/* The full name of the process's executable, with backslashes, in the ANSI code page. module must be NULL
 * (ERROR_MOD_NOT_FOUND).
 *
 * Returns the characters without the NUL. A name that does not fit is cut: then size is returned, the buffer is full
 * with a NUL as its last character, and the last error is ERROR_INSUFFICIENT_BUFFER (as since Windows Vista). 0 on
 * failure. */
WINBASEAPI DWORD WINAPI GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size);

/* Thread notifications do not exist here: always TRUE for a module, FALSE with ERROR_MOD_NOT_FOUND for NULL. */
WINBASEAPI BOOL WINAPI DisableThreadLibraryCalls(HMODULE module);

#define LOAD_LIBRARY_SEARCH_APPLICATION_DIR 0x00000200

/* Loads a module that came with the product, and takes a reference to it. name: without a folder and a suffix;
 * "oriel_x" is oriel/liboriel_x.so beside this layer. reserved must be NULL and flags
 * LOAD_LIBRARY_SEARCH_APPLICATION_DIR (ERROR_INVALID_PARAMETER). NULL with ERROR_MOD_NOT_FOUND when there is no such
 * module, or a library that it needs is missing. */
WINBASEAPI HMODULE WINAPI LoadLibraryExA(LPCSTR name, HANDLE reserved, DWORD flags);

/* The address of an export of a module. NULL with ERROR_PROC_NOT_FOUND, or ERROR_MOD_NOT_FOUND. name is a text: there
 * are no numbers of exports here. */
WINBASEAPI FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name);

#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x00000004

/* The module that has the address (given as the name) in its memory, and a reference to it: it stays loaded until
 * FreeLibrary. flags must be GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS (ERROR_INVALID_PARAMETER, also without module).
 * ERROR_MOD_NOT_FOUND: *module is NULL. */
WINBASEAPI BOOL WINAPI GetModuleHandleExA(DWORD flags, LPCSTR name, HMODULE* module);

/* Gives a reference back; with the last one the module goes. ERROR_MOD_NOT_FOUND. */
WINBASEAPI BOOL WINAPI FreeLibrary(HMODULE module);

/* For a thread whose code is in the module: gives the reference back and ends the thread, without a return to that
 * code. Of threads that CreateThread began. Nothing is unwound. */
WINBASEAPI void WINAPI FreeLibraryAndExitThread(HMODULE module, DWORD exitCode) __attribute__((noreturn));

WINBASE_END

#endif

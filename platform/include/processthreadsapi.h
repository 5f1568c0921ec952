/* Threads and processes. */
#ifndef ORIEL_PROCESSTHREADSAPI_H
#define ORIEL_PROCESSTHREADSAPI_H

#include <minwinbase.h>
#include <winerror.h>

WINBASE_BEGIN

typedef DWORD(WINAPI* LPTHREAD_START_ROUTINE)(LPVOID parameter);

#define STILL_ACTIVE STATUS_PENDING
#define CREATE_NEW_CONSOLE 0x00000010
#define NORMAL_PRIORITY_CLASS 0x00000020

/* Pseudo handles: constants that mean the caller's own. They cannot be waited for. */
WINBASEAPI HANDLE WINAPI GetCurrentProcess(void);
WINBASEAPI HANDLE WINAPI GetCurrentThread(void);
WINBASEAPI DWORD WINAPI GetCurrentProcessId(void);
/* Unique among the threads of the machine that run at the same time. */
WINBASEAPI DWORD WINAPI GetCurrentThreadId(void);

/* How many handles of all kinds the process has open: only of the calling one, by its pseudo handle. For tests and for
 * whoever looks for a leak. ERROR_INVALID_HANDLE, ERROR_INVALID_PARAMETER (count is NULL). */
WINBASEAPI BOOL WINAPI GetProcessHandleCount(HANDLE process, LPDWORD count);

/* stackSize: bytes, 0 for the system's default; raised to 64 KiB where less is asked. flags must be 0.
 * The thread does not take the process's signals, apart from its own faults. threadId may be NULL.
 * NULL on failure: ERROR_INVALID_PARAMETER (no start routine), ERROR_NOT_SUPPORTED (flags, an inheritable handle),
 * ERROR_NO_SYSTEM_RESOURCES. The handle is ready to a wait when the thread has ended, its thread-local destructors
 * included. */
WINBASEAPI HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES attributes, SIZE_T stackSize, LPTHREAD_START_ROUTINE start,
                                      LPVOID parameter, DWORD flags, LPDWORD threadId);

/* STILL_ACTIVE (259) while it runs. */
WINBASEAPI BOOL WINAPI GetExitCodeThread(HANDLE thread, LPDWORD exitCode);

/* Stops the thread where it is, for good: none of its code runs again, nothing is unwound, its stack stays. Its handle
 * is then ready and its mutexes are abandoned; what it locked otherwise stays locked. Inside a call of this layer the
 * thread is stopped when the call ends or, where it waits, at once. One that has ended keeps its exit code, and the
 * call succeeds. ERROR_TIMEOUT when the thread did not react within 2 seconds (it blocks all signals): it then runs on.
 */
WINBASEAPI BOOL WINAPI TerminateThread(HANDLE thread, DWORD exitCode);

/* The 68 bytes of the 32-bit form. All zero apart from cb: no other start-up choice is implemented. */
typedef struct _STARTUPINFOA {
    DWORD cb;
    LPSTR lpReserved;
    LPSTR lpDesktop;
    LPSTR lpTitle;
    DWORD dwX;
    DWORD dwY;
    DWORD dwXSize;
    DWORD dwYSize;
    DWORD dwXCountChars;
    DWORD dwYCountChars;
    DWORD dwFillAttribute;
    DWORD dwFlags;
    WORD wShowWindow;
    WORD cbReserved2;
    LPBYTE lpReserved2;
    HANDLE hStdInput;
    HANDLE hStdOutput;
    HANDLE hStdError;
} STARTUPINFOA, *LPSTARTUPINFOA;

/* hThread stands for the process's first thread: it can be waited for and closed. */
typedef struct _PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;
    DWORD dwProcessId;
    DWORD dwThreadId;
} PROCESS_INFORMATION, *PPROCESS_INFORMATION, *LPPROCESS_INFORMATION;

/* application: path of the executable, or NULL: then the first word of commandLine is it. Paths are as CreateFileA
 * takes them; nothing is searched for and no extension is added. commandLine is divided into arguments as the Microsoft
 * C run-time divides it (spaces and tabs, double quotes, backslashes before quotes); NULL: the application alone.
 *
 * The child starts with the standard streams, the environment, the directory and the user of its parent, no other
 * descriptor, and the default handling of every signal. CREATE_NEW_CONSOLE: with a session of its own and no streams.
 *
 * FALSE on failure: ERROR_NOT_SUPPORTED (security attributes with an inheritable handle, inheritHandles, other flags,
 * an environment, a directory, a startup record that asks for something), ERROR_INVALID_PARAMETER (no path, no result
 * record), ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_BAD_EXE_FORMAT,
 * ERROR_NOT_ENOUGH_MEMORY. */
WINBASEAPI BOOL WINAPI CreateProcessA(LPCSTR application, LPSTR commandLine, LPSECURITY_ATTRIBUTES processAttributes,
                                      LPSECURITY_ATTRIBUTES threadAttributes, BOOL inheritHandles, DWORD flags,
                                      LPVOID environment, LPCSTR directory, LPSTARTUPINFOA startup,
                                      LPPROCESS_INFORMATION information);

/* access: SYNCHRONIZE, PROCESS_QUERY_INFORMATION or both, nothing else (ERROR_ACCESS_DENIED). ERROR_INVALID_PARAMETER
 * when there is no such process. */
WINBASEAPI HANDLE WINAPI OpenProcess(DWORD access, BOOL inherit, DWORD processId);

/* STILL_ACTIVE while it runs. The low 8 bits of what the process returned; the whole code that TerminateProcess gave
 * when this process ended it; 128 + the signal's number when another signal did. ERROR_ACCESS_DENIED for a handle of
 * OpenProcess, and when the host program waited for the child itself and so took its exit code. */
WINBASEAPI BOOL WINAPI GetExitCodeProcess(HANDLE process, LPDWORD exitCode);

/* Kills it at once; of the own process, none of its clean-up runs. ERROR_ACCESS_DENIED for a handle of OpenProcess and
 * for a process that has ended. */
WINBASEAPI BOOL WINAPI TerminateProcess(HANDLE process, UINT exitCode);

/* The token of a process: the effective user and groups that its first thread runs with when this is called; of the
 * own process, without what that thread impersonates. process: GetCurrentProcess(), or a handle with
 * PROCESS_QUERY_INFORMATION. access: of READ_CONTROL, TOKEN_QUERY, TOKEN_DUPLICATE and TOKEN_IMPERSONATE; others are
 * ERROR_ACCESS_DENIED. ERROR_INVALID_PARAMETER: the process has ended. Closed with CloseHandle. */
WINBASEAPI BOOL WINAPI OpenProcessToken(HANDLE process, DWORD access, PHANDLE token);

/* The token that the calling thread impersonates: one given to ImpersonateLoggedOnUser, or else the thread's own
 * effective user and groups where they differ from the process's. ERROR_NO_TOKEN: it impersonates nobody. thread:
 * GetCurrentThread() (ERROR_NOT_SUPPORTED for others). A thread may always open its own token, openAsSelf or not. */
WINBASEAPI BOOL WINAPI OpenThreadToken(HANDLE thread, DWORD access, BOOL openAsSelf, PHANDLE token);

WINBASE_END

#endif

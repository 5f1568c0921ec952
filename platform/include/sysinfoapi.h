/* What the system says of itself: its version, the time, the user, the environment, the user's profile.
 *
 * The emulated Windows is set, not guessed; an environment variable stands over the registry, the registry over the
 * default. Both are read at each call.
 *
 *   version    ORIEL_WINDOWS_VERSION; HKEY_LOCAL_MACHINE "SOFTWARE\Microsoft\Windows NT\CurrentVersion", values
 *              "CurrentVersion" and "CurrentBuildNumber"; Windows NT 5.1, build 2600
 *   user name  ORIEL_LOGON_NAME; the account of the effective user */
#ifndef ORIEL_SYSINFOAPI_H
#define ORIEL_SYSINFOAPI_H

#include <minwinbase.h>

WINBASE_BEGIN

/* 148 bytes. */
typedef struct _OSVERSIONINFOA {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId; /* VER_PLATFORM_WIN32_NT, VER_PLATFORM_WIN32_WINDOWS */
    CHAR szCSDVersion[128];
} OSVERSIONINFOA, *POSVERSIONINFOA, *LPOSVERSIONINFOA;

/* The emulated version. dwOSVersionInfoSize must be set (ERROR_INSUFFICIENT_BUFFER).
 *
 * ORIEL_WINDOWS_VERSION is "major.minor" for Windows NT, "9x:major.minor" for Windows 95, 98 and Me, each with ".build"
 * behind it if the build number matters: "3.51", "5.0.2195", "9x:4.10". Minor numbers are decimal fractions as Windows
 * writes them: "3.51" is 3 and 51. A malformed setting is refused: FALSE with ERROR_INVALID_DATA. */
WINBASEAPI BOOL WINAPI GetVersionExA(LPOSVERSIONINFOA versionInformation);

/* UTC, to the millisecond. */
WINBASEAPI void WINAPI GetSystemTime(LPSYSTEMTIME systemTime);
/* UTC, in units of 100 ns since 1601-01-01. */
WINBASEAPI void WINAPI GetSystemTimeAsFileTime(LPFILETIME systemTimeAsFileTime);
/* FALSE with ERROR_INVALID_PARAMETER for times from 0x8000000000000000 on. */
WINBASEAPI BOOL WINAPI FileTimeToSystemTime(const FILETIME* fileTime, LPSYSTEMTIME systemTime);
/* Years 1601 to 30827; wDayOfWeek is not looked at. FALSE with ERROR_INVALID_PARAMETER for a date that does not exist.
 * */
WINBASEAPI BOOL WINAPI SystemTimeToFileTime(const SYSTEMTIME* systemTime, LPFILETIME fileTime);

/* The logon name in the ANSI code page. *size: characters of the buffer; on return those of the name with its NUL.
 * FALSE with ERROR_INSUFFICIENT_BUFFER when it does not fit, *size being what is needed. */
WINBASEAPI BOOL WINAPI GetUserNameA(LPSTR buffer, LPDWORD size);

/* Reads from the user's profile. Only the section "Windows" exists; it is stored, as Windows NT does it, in the
 * registry: HKEY_CURRENT_USER "Software\Microsoft\Windows NT\CurrentVersion\Windows". A missing section or key, or a
 * value that is not text, gives defaultValue (NULL: the empty string) without its trailing blanks. One pair of
 * quotation marks around a value is taken off. keyName must not be NULL (no enumeration): 0 and
 * ERROR_INVALID_PARAMETER.
 *
 * Returns the characters without the NUL; size - 1 when the text was cut. */
WINBASEAPI DWORD WINAPI GetProfileStringA(LPCSTR section, LPCSTR keyName, LPCSTR defaultValue, LPSTR returned,
                                          DWORD size);
/* Writes to the section "Windows"; a NULL value removes the key. Other sections and a NULL section or key are refused
 * (ERROR_INVALID_PARAMETER). */
WINBASEAPI BOOL WINAPI WriteProfileStringA(LPCSTR section, LPCSTR keyName, LPCSTR value);

WINBASE_END

#ifdef __cplusplus
static_assert(sizeof(OSVERSIONINFOA) == 148);
#endif

#endif

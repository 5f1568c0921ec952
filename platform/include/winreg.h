/* The registry: keys named by paths, values of any type with their exact bytes. Win32, "Registry Functions".
 *
 * HKEY_LOCAL_MACHINE is one store for all users of the machine, HKEY_CURRENT_USER one for each user; registry/root.h
 * says where they lie. Names compare without case and keep their first spelling; enumeration gives the order of
 * creation. A key name has at most 255 bytes and no control characters, a path 32,767 bytes and 512 levels, a value
 * name 16,383 bytes, a value 1,048,576 (Windows itself sets no limit on the last). In a path a trailing backslash and
 * doubled ones are passed over; one that starts with a backslash gives ERROR_BAD_PATHNAME. Data are stored as they are
 * given, strings in the ANSI code page with or without their NUL: the size counts.
 *
 * All calls give ERROR_SUCCESS or a code of winerror.h and leave the last error alone. Any call may also give:
 *   ERROR_INVALID_HANDLE        not an open key of this process
 *   ERROR_INVALID_PARAMETER     a required pointer is absent, a reserved one is set, an unknown option
 *   ERROR_ACCESS_DENIED         the handle lacks the right needed, this user may not write the store, no such right
 *   ERROR_KEY_DELETED           the key was deleted under the handle
 *   ERROR_BUSY                  other processes changed the store for 5 seconds, or one died in a change that we may not undo
 *   ERROR_BADDB                 the store's file is damaged or not of this version; nothing was changed
 *   ERROR_REGISTRY_IO_FAILED    the store's file cannot be read or written; ERROR_DISK_FULL
 *   ERROR_NOT_ENOUGH_MEMORY
 * A call that changes something is whole or not done at all, also when the process is killed in it. All calls may be
 * made from any thread. */
#ifndef ORIEL_WINREG_H
#define ORIEL_WINREG_H

#include <minwinbase.h>
#include <winerror.h>
#include <winnt.h>

WINBASE_BEGIN

typedef LONG LSTATUS;
typedef ACCESS_MASK REGSAM;
/* An open key: a 32-bit value of this process, never 0. Closed by RegCloseKey; not for CloseHandle. */
typedef struct HKEY__* HKEY;
typedef HKEY* PHKEY;

/* Open in every process, with all rights; closing them changes nothing. */
#define HKEY_CURRENT_USER ((HKEY)(ULONG_PTR)0x80000001U)
#define HKEY_LOCAL_MACHINE ((HKEY)(ULONG_PTR)0x80000002U)

/* Opens a key that exists. subKey absent or empty: another handle of the same key. options is 0. access:
 * KEY_QUERY_VALUE (read values and counts), KEY_ENUMERATE_SUB_KEYS, KEY_SET_VALUE, KEY_CREATE_SUB_KEY, DELETE and what
 * contains them: KEY_READ, KEY_WRITE, KEY_ALL_ACCESS, the generic rights, MAXIMUM_ALLOWED (all that this user may).
 * KEY_NOTIFY is taken, though nothing can be asked with it. Rights to write are refused with ERROR_ACCESS_DENIED when
 * this user may not write the store. ERROR_FILE_NOT_FOUND: no such key. *result stays untouched on failure. */
WINBASEAPI LSTATUS WINAPI RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options, REGSAM access, PHKEY result);

/* Opens a key, made with all keys above it when it is missing. keyClass is absent or empty and security absent (keys
 * have neither); options is REG_OPTION_NON_VOLATILE. disposition may be absent; REG_CREATED_NEW_KEY or
 * REG_OPENED_EXISTING_KEY. Making a key needs KEY_CREATE_SUB_KEY on the key given. ERROR_INVALID_PARAMETER also for a
 * name that is too long. */
WINBASEAPI LSTATUS WINAPI RegCreateKeyExA(HKEY key, LPCSTR subKey, DWORD reserved, LPSTR keyClass, DWORD options,
                                          REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY result,
                                          LPDWORD disposition);

WINBASEAPI LSTATUS WINAPI RegCloseKey(HKEY key);

/* Reads one value; valueName absent or empty means the default value. Needs KEY_QUERY_VALUE. type may be absent. size:
 * bytes, in and out. data absent: only type and size. ERROR_MORE_DATA: the buffer is too small, type and size tell what
 * is there and the buffer is untouched. ERROR_FILE_NOT_FOUND: no such value. */
WINBASEAPI LSTATUS WINAPI RegQueryValueExA(HKEY key, LPCSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                           LPDWORD size);

/* Writes one value, replaced with its type when it exists. Needs KEY_SET_VALUE. Any type is taken; a REG_SZ,
 * REG_EXPAND_SZ or REG_MULTI_SZ is stored with the size given (none is added and none is cut).
 * ERROR_INVALID_PARAMETER also for a name or data beyond the limits. */
WINBASEAPI LSTATUS WINAPI RegSetValueExA(HKEY key, LPCSTR valueName, DWORD reserved, DWORD type, const BYTE* data,
                                         DWORD size);

/* Needs KEY_SET_VALUE. ERROR_FILE_NOT_FOUND: no such value. */
WINBASEAPI LSTATUS WINAPI RegDeleteValueA(HKEY key, LPCSTR valueName);

/* Deletes the key with its values; subKey must be given, "" means the key itself. The rights of the handle do not count
 * (as on Windows), those of the user do. Open handles of it answer ERROR_KEY_DELETED from then on. ERROR_ACCESS_DENIED:
 * it has subkeys, or it is a root; ERROR_FILE_NOT_FOUND. */
WINBASEAPI LSTATUS WINAPI RegDeleteKeyA(HKEY key, LPCSTR subKey);

/* The subkey with an index from 0, in the order of their creation. Needs KEY_ENUMERATE_SUB_KEYS. nameSize: characters,
 * with the NUL on entry and without it on return. keyClass and classSize may be absent; a class is empty. lastWrite may
 * be absent; UTC. ERROR_NO_MORE_ITEMS: index beyond the last. ERROR_MORE_DATA: the name does not fit; outputs
 * untouched. */
WINBASEAPI LSTATUS WINAPI RegEnumKeyExA(HKEY key, DWORD index, LPSTR name, LPDWORD nameSize, LPDWORD reserved,
                                        LPSTR keyClass, LPDWORD classSize, PFILETIME lastWrite);

/* The value with an index from 0, in the order of their creation (a replaced value keeps its place). Needs
 * KEY_QUERY_VALUE. nameSize as above; type, data and size as for RegQueryValueExA. ERROR_NO_MORE_ITEMS.
 * ERROR_MORE_DATA: the name or the data do not fit; size then tells the data's size, nameSize is untouched. */
WINBASEAPI LSTATUS WINAPI RegEnumValueA(HKEY key, DWORD index, LPSTR valueName, LPDWORD nameSize, LPDWORD reserved,
                                        LPDWORD type, LPBYTE data, LPDWORD size);

/* Counts and greatest lengths of what is in a key; every output may be absent. Needs KEY_QUERY_VALUE. Names are counted
 * in characters without the NUL, data in bytes. securitySize must be absent: keys have no descriptor. */
WINBASEAPI LSTATUS WINAPI RegQueryInfoKeyA(HKEY key, LPSTR keyClass, LPDWORD classSize, LPDWORD reserved,
                                           LPDWORD subKeys, LPDWORD longestSubKey, LPDWORD longestClass, LPDWORD values,
                                           LPDWORD longestValueName, LPDWORD longestValueData, LPDWORD securitySize,
                                           PFILETIME lastWrite);

WINBASE_END

#endif

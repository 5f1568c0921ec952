/* The base services, gathered from the headers of their API sets. */
#ifndef ORIEL_WINBASE_H
#define ORIEL_WINBASE_H

/* clang-format off */
#include <minwinbase.h>
#include <errhandlingapi.h>
#include <handleapi.h>
#include <synchapi.h>
#include <processthreadsapi.h>
#include <consoleapi.h>
#include <stdhandleapi.h>
#include <heapapi.h>
#include <memoryapi.h>
#include <fileapi.h>
#include <libloaderapi.h>
#include <sysinfoapi.h>
#include <securitybaseapi.h>
/* clang-format on */

WINBASE_BEGIN

/* The account that a SID stands for: a user ("Unix User") or a group ("Unix Group") of this system's account database,
 * or one of the groups that securitybaseapi.h names, CREATOR OWNER among them. system: NULL. nameLength, domainLength:
 * characters of the buffers; on success without the NUL, else what is needed with it.
 * ERROR_NONE_MAPPED: no account, one that was deleted, or the database cannot be asked. ERROR_INSUFFICIENT_BUFFER,
 * ERROR_INVALID_SID, ERROR_NOT_SUPPORTED (another system). */
WINBASEAPI BOOL WINAPI LookupAccountSidA(LPCSTR system, PSID sid, LPSTR name, LPDWORD nameLength, LPSTR domain,
                                         LPDWORD domainLength, PSID_NAME_USE use);
/* The SID of an account: "name", or "domain\\name" with a domain as LookupAccountSidA gives it. Without a domain, a
 * group of securitybaseapi.h comes before a user, and a user before a group of this system. sidLength: bytes.
 * The errors of LookupAccountSidA, ERROR_INVALID_SID excepted. */
WINBASEAPI BOOL WINAPI LookupAccountNameA(LPCSTR system, LPCSTR account, PSID sid, LPDWORD sidLength, LPSTR domain,
                                          LPDWORD domainLength, PSID_NAME_USE use);

/* Frees what calls of sddl.h give; nothing else. NULL on success; NULL may be freed. */
WINBASEAPI HLOCAL WINAPI LocalFree(HLOCAL memory);

WINBASE_END

#endif

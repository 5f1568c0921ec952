// The rules of a user's authority over a printer: where it comes from, and what the rights of an access control list
// give. The library answers reads of "UserAuthority" by them, and the command line explains them. No state.
#pragma once

#include "product/client_kinds.h"

#include <tvsqdz_records.h>
#include <windows.h>
#include <winspool.h>

#include <stdint.h>
#include <string.h>

// The product's own port monitor works on everybody's behalf.
inline constexpr char kPortMonitorUser[] = "\\\\.\\kptmon";

inline constexpr uint32_t kAllAuthority = TVS_AUTHORITY_PRINT | TVS_AUTHORITY_OWN_JOBS | TVS_AUTHORITY_ALL_JOBS |
                                          TVS_AUTHORITY_DIRECT_READ | TVS_AUTHORITY_DIRECT_WRITE;
inline constexpr uint32_t kPollingAuthority = TVS_AUTHORITY_PRINT | TVS_AUTHORITY_OWN_JOBS | TVS_AUTHORITY_DIRECT_READ;
static_assert(kAllAuthority == 31 && kPollingAuthority == 11);

enum class AuthoritySource {
    StoredValue, // the component that serves the printer's port says it; 0 when that cannot be read
    Polling,     // kPollingAuthority, for everybody
    NoAccounts,  // kAllAuthority: Windows 95, 98 and Me
    PortMonitor, // kAllAuthority
    AccessList,  // the printer's access control list and the calling user; TVS_AUTHORITY_PRINT when there is no list
};

// portKind: as it is stored. kindMask: bits of the client kinds that the process has opened managers as. platform:
// dwPlatformId of the system. user: the manager's user name.
inline AuthoritySource AuthoritySourceOf(uint32_t portKind, uint32_t kindMask, DWORD platform, const char* user) {
    // A port of exactly this kind has an authority of its own; one with the bit among others has not.
    if (portKind == TVS_PORT_NO_REQUESTS) return AuthoritySource::StoredValue;
    if ((kindMask & kPollingKindBit) != 0) return AuthoritySource::Polling;
    if (platform == VER_PLATFORM_WIN32_WINDOWS) return AuthoritySource::NoAccounts;
    return strcmp(user, kPortMonitorUser) == 0 ? AuthoritySource::PortMonitor : AuthoritySource::AccessList;
}

// The rights that entries of a list allow and deny. A denied right is lost, whatever the order.
struct ListedRights {
    DWORD allowed = 0;
    DWORD denied = 0;

    void Count(bool denies, DWORD mask) { (denies ? denied : allowed) |= mask; }
    DWORD Effective() const { return allowed & ~denied; }
};

// One bit of the authority, and what gives it: any right of the user's that is in `user`, or any right of the owners of
// jobs (CREATOR OWNER) that is in `owners`. Direct write takes all of DirectWriteRights instead.
struct AuthorityRule {
    uint32_t authority = 0;
    const char* name = nullptr;
    DWORD user = 0;
    DWORD owners = 0;
};

inline constexpr DWORD kManagesJobs = GENERIC_ALL | JOB_ACCESS_ADMINISTER;
inline constexpr AuthorityRule kAuthorityRules[] = {
    {.authority = TVS_AUTHORITY_PRINT, .name = "print", .user = PRINTER_ACCESS_USE},
    {.authority = TVS_AUTHORITY_OWN_JOBS, .name = "own jobs", .user = kManagesJobs, .owners = kManagesJobs},
    {.authority = TVS_AUTHORITY_ALL_JOBS, .name = "all jobs", .user = kManagesJobs},
    {.authority = TVS_AUTHORITY_DIRECT_READ, .name = "direct read", .user = kManagesJobs | PRINTER_ACCESS_USE},
};

inline constexpr char kDirectWriteName[] = "direct write"; // TVS_AUTHORITY_DIRECT_WRITE

// The printer's own rights; before Windows 2000, and for a user with generic rights, which have not been mapped to the
// printer's own, the standard ones. majorVersion: of the system. user: the user's effective rights.
constexpr DWORD DirectWriteRights(DWORD majorVersion, DWORD user) {
    constexpr DWORD kAdministers = PRINTER_ACCESS_ADMINISTER | PRINTER_ACCESS_USE | JOB_ACCESS_ADMINISTER;
    static_assert(kAdministers == 0x1C);
    const bool byPrinterRights = majorVersion > 4 && (user & (GENERIC_ALL | GENERIC_EXECUTE)) == 0;
    return byPrinterRights ? kAdministers : STANDARD_RIGHTS_REQUIRED;
}

// The authority that the effective rights of the user and of the owners of jobs give.
constexpr uint32_t AuthorityOfRights(DWORD majorVersion, DWORD user, DWORD owners) {
    uint32_t authority = 0;
    for (const AuthorityRule& rule : kAuthorityRules)
        if (((user & rule.user) | (owners & rule.owners)) != 0) authority |= rule.authority;
    const DWORD writing = DirectWriteRights(majorVersion, user);
    if ((user & writing) == writing) authority |= TVS_AUTHORITY_DIRECT_WRITE;
    return authority;
}

/* Security identifiers, access control lists and security descriptors, in the binary form of Windows (winnt.h has the
 * layouts), and what a token says.
 *
 * A user of this system is S-1-22-1-uid, a group S-1-22-2-gid. Every user belongs to Everyone (S-1-1-0), Authenticated
 * Users (S-1-5-11) and Users (S-1-5-32-545), root to Administrators (S-1-5-32-544) too.
 *
 * What these calls read is taken as hostile: counts and sizes are checked before use, and memory that cannot be read
 * makes a record invalid instead of ending the process. What they write to is trusted. Records must be aligned to 4
 * bytes. */
#ifndef ORIEL_SECURITYBASEAPI_H
#define ORIEL_SECURITYBASEAPI_H

#include <winnt.h>

WINBASE_BEGIN

/* Makes a SID of 1 to 8 sub-authorities, freed with FreeSid. FALSE with ERROR_INVALID_SID for another count. */
WINBASEAPI BOOL WINAPI AllocateAndInitializeSid(PSID_IDENTIFIER_AUTHORITY identifierAuthority, BYTE subAuthorityCount,
                                                DWORD subAuthority0, DWORD subAuthority1, DWORD subAuthority2,
                                                DWORD subAuthority3, DWORD subAuthority4, DWORD subAuthority5,
                                                DWORD subAuthority6, DWORD subAuthority7, PSID* sid);
/* NULL. */
WINBASEAPI PVOID WINAPI FreeSid(PSID sid);

/* Bytes: 8 + 4 for each sub-authority. 0 with ERROR_INVALID_SID for an invalid one: revision 1 and at most 15
 * sub-authorities are valid. */
WINBASEAPI DWORD WINAPI GetLengthSid(PSID sid);
/* FALSE when they differ, and with ERROR_INVALID_SID when one is invalid. */
WINBASEAPI BOOL WINAPI EqualSid(PSID sid1, PSID sid2);

/* Makes an empty list in a block of aclLength bytes (8 to 65,535, rounded down to a multiple of 4). revision must be
 * ACL_REVISION. FALSE with ERROR_INSUFFICIENT_BUFFER or ERROR_INVALID_PARAMETER. */
WINBASEAPI BOOL WINAPI InitializeAcl(PACL acl, DWORD aclLength, DWORD revision);
/* TRUE when header, count and every entry agree with its size. */
WINBASEAPI BOOL WINAPI IsValidAcl(PACL acl);
/* Appends an entry of 8 bytes and the SID, flags 0. FALSE with ERROR_ALLOTTED_SPACE_EXCEEDED when there is no room,
 * ERROR_INVALID_SID, ERROR_INVALID_ACL or ERROR_REVISION_MISMATCH. */
WINBASEAPI BOOL WINAPI AddAccessAllowedAce(PACL acl, DWORD revision, DWORD accessMask, PSID sid);
/* The address of an entry inside the list, which is valid up to there. FALSE with ERROR_INVALID_PARAMETER when there is
 * no such entry or the list is invalid. */
WINBASEAPI BOOL WINAPI GetAce(PACL acl, DWORD index, LPVOID* ace);
/* informationClass: AclSizeInformation; information: ACL_SIZE_INFORMATION, length: its bytes or more. FALSE with
 * ERROR_INVALID_ACL, ERROR_INSUFFICIENT_BUFFER or ERROR_INVALID_PARAMETER. */
WINBASEAPI BOOL WINAPI GetAclInformation(PACL acl, LPVOID information, DWORD length,
                                         ACL_INFORMATION_CLASS informationClass);

/* Makes an absolute descriptor without owner, group or lists. revision must be SECURITY_DESCRIPTOR_REVISION
 * (ERROR_UNKNOWN_REVISION). */
WINBASEAPI BOOL WINAPI InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision);
/* These set a part of an absolute descriptor, which keeps the pointer. NULL means none. FALSE with
 * ERROR_INVALID_SECURITY_DESCR for a self-relative one, ERROR_UNKNOWN_REVISION, ERROR_INVALID_SID or ERROR_INVALID_ACL.
 * */
WINBASEAPI BOOL WINAPI SetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR descriptor, PSID owner, BOOL defaulted);
WINBASEAPI BOOL WINAPI SetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR descriptor, PSID group, BOOL defaulted);
WINBASEAPI BOOL WINAPI SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL dacl,
                                                 BOOL defaulted);
/* *dacl and *defaulted are untouched when *present is FALSE. A present list that is NULL allows everything. */
WINBASEAPI BOOL WINAPI GetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, LPBOOL present, PACL* dacl,
                                                 LPBOOL defaulted);

/* Bytes of the self-relative form; SECURITY_DESCRIPTOR_MIN_LENGTH for an invalid descriptor, whose revision is not 1 or
 * that has a part that is not valid. */
WINBASEAPI DWORD WINAPI GetSecurityDescriptorLength(PSECURITY_DESCRIPTOR descriptor);
/* Writes the self-relative form of an absolute descriptor: header, system list, list, owner, group. *length: bytes of
 * the block, on return those needed. FALSE with ERROR_INSUFFICIENT_BUFFER, ERROR_INVALID_SECURITY_DESCR, or
 * ERROR_BAD_DESCRIPTOR_FORMAT when it is self-relative already. */
WINBASEAPI BOOL WINAPI MakeSelfRelativeSD(PSECURITY_DESCRIPTOR absolute, PSECURITY_DESCRIPTOR selfRelative,
                                          LPDWORD length);

/* TokenUser (TOKEN_USER) or TokenGroups (TOKEN_GROUPS: the effective group first); the SIDs follow in the same block.
 * Needs TOKEN_QUERY. *needed: bytes of the whole. FALSE with ERROR_INSUFFICIENT_BUFFER or ERROR_INVALID_PARAMETER. */
WINBASEAPI BOOL WINAPI GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS informationClass, LPVOID information,
                                           DWORD length, PDWORD needed);

/* The calling thread, and no other, acts as the token's user and groups from now on: in this layer and towards the
 * system, whose effective ids of the thread become the token's. Needs TOKEN_QUERY and TOKEN_DUPLICATE.
 * ERROR_PRIVILEGE_NOT_HELD: this process may not take on another user; the thread then acts as before. A thread's
 * calls of services (rpcdce.h) go on under the process's user. */
WINBASEAPI BOOL WINAPI ImpersonateLoggedOnUser(HANDLE token);
/* The thread acts as the process again; TRUE also when it did already. On FALSE it does not, and must do nothing
 * more in anybody's name. */
WINBASEAPI BOOL WINAPI RevertToSelf(void);

WINBASE_END

#endif

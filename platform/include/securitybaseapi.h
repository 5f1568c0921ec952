/* Security identifiers, access control lists and security descriptors, in the binary form of Windows (winnt.h has the
 * layouts).
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

/* TRUE for revision 1 and at most 15 sub-authorities. */
WINBASEAPI BOOL WINAPI IsValidSid(PSID sid);
/* Bytes: 8 + 4 for each sub-authority. 0 with ERROR_INVALID_SID for an invalid one. */
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

/* TRUE when the revision is 1 and every part that is there is valid. */
WINBASEAPI BOOL WINAPI IsValidSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor);
/* Bytes of the self-relative form; SECURITY_DESCRIPTOR_MIN_LENGTH for an invalid descriptor. */
WINBASEAPI DWORD WINAPI GetSecurityDescriptorLength(PSECURITY_DESCRIPTOR descriptor);
/* Writes the self-relative form of an absolute descriptor: header, system list, list, owner, group. *length: bytes of
 * the block, on return those needed. FALSE with ERROR_INSUFFICIENT_BUFFER, ERROR_INVALID_SECURITY_DESCR, or
 * ERROR_BAD_DESCRIPTOR_FORMAT when it is self-relative already. */
WINBASEAPI BOOL WINAPI MakeSelfRelativeSD(PSECURITY_DESCRIPTOR absolute, PSECURITY_DESCRIPTOR selfRelative,
                                          LPDWORD length);

WINBASE_END

#endif

/* Security records as text. Win32, "Security Descriptor String Format", "SID Components".
 *
 *     D:(A;;SWRC;;;WD)(D;;0x8;;;S-1-22-1-1000)(A;OIIO;RPWPSDRCWDWO;;;CO)
 *
 * Of a descriptor only its list is read and written. What is given is freed with LocalFree. */
#ifndef ORIEL_SDDL_H
#define ORIEL_SDDL_H

#include <winbase.h>
#include <winnt.h>

WINBASE_BEGIN

#define SDDL_REVISION_1 1

typedef DWORD SECURITY_INFORMATION, *PSECURITY_INFORMATION;
#define DACL_SECURITY_INFORMATION 0x00000004L

/* "S-1-5-32-544"; an authority of more than 32 bits in hexadecimal. FALSE with ERROR_INVALID_SID. */
WINBASEAPI BOOL WINAPI ConvertSidToStringSidA(PSID sid, LPSTR* text);
/* The same form, or one of the two letters WD, CO, AU, BA and BU. FALSE with ERROR_INVALID_SID. */
WINBASEAPI BOOL WINAPI ConvertStringSidToSidA(LPCSTR text, PSID* sid);

/* "D:" and an entry in brackets for each of the list, rights by their letters as far as these say all, else as a number.
 * information: DACL_SECURITY_INFORMATION; revision: SDDL_REVISION_1. length may be NULL: characters with the NUL.
 * FALSE with ERROR_INVALID_SECURITY_DESCR, ERROR_UNKNOWN_REVISION, ERROR_INVALID_PARAMETER, or ERROR_INVALID_ACL for a
 * list with other entries than those that allow or deny. */
WINBASEAPI BOOL WINAPI ConvertSecurityDescriptorToStringSecurityDescriptorA(PSECURITY_DESCRIPTOR descriptor,
                                                                            DWORD revision,
                                                                            SECURITY_INFORMATION information,
                                                                            LPSTR* text, PULONG length);
/* A self-relative descriptor of the list that the text gives; blanks between its parts are let pass. Letters of rights:
 * GA GR GW GX, RC SD WD WO, CC DC LC SW RP WP DT LO CR; of flags: OI CI NP IO ID; of types: A and D. size may be NULL.
 * FALSE with ERROR_INVALID_PARAMETER (no such text; owner, group, system list, flags of the list, other types, objects:
 * not supported), ERROR_INVALID_SID (no such account), ERROR_INVALID_ACL (longer than 65,532 bytes),
 * ERROR_UNKNOWN_REVISION. */
WINBASEAPI BOOL WINAPI ConvertStringSecurityDescriptorToSecurityDescriptorA(LPCSTR text, DWORD revision,
                                                                            PSECURITY_DESCRIPTOR* descriptor,
                                                                            PULONG size);

WINBASE_END

#endif

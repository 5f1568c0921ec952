/* Access rights, security records, registry and service constants, interlocked operations: what windows.h shares between
 * its parts. Layouts of the security records: Win32, "SID structure", "ACL structure", "SECURITY_DESCRIPTOR structure". */
#ifndef ORIEL_WINNT_H
#define ORIEL_WINNT_H

#include <windef.h>

WINBASE_BEGIN

/* Standard and generic access rights. */
#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define WRITE_DAC 0x00040000L
#define WRITE_OWNER 0x00080000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define MAXIMUM_ALLOWED 0x02000000L
#define GENERIC_READ 0x80000000U
#define GENERIC_WRITE 0x40000000L
#define GENERIC_EXECUTE 0x20000000L
#define GENERIC_ALL 0x10000000L

/* Rights of events and mutexes. */
#define EVENT_MODIFY_STATE 0x0002
#define EVENT_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3)
#define MUTANT_QUERY_STATE 0x0001
#define MUTEX_MODIFY_STATE MUTANT_QUERY_STATE
#define MUTEX_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | MUTANT_QUERY_STATE)

/* Security identifiers: 8 bytes and 4 for each sub-authority. */
typedef struct _SID_IDENTIFIER_AUTHORITY {
    BYTE Value[6];
} SID_IDENTIFIER_AUTHORITY, *PSID_IDENTIFIER_AUTHORITY;

typedef struct _SID {
    BYTE Revision;
    BYTE SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    DWORD SubAuthority[1];
} SID;
typedef PVOID PSID;

#define SID_REVISION 1
#define SID_MAX_SUB_AUTHORITIES 15
#define SECURITY_WORLD_SID_AUTHORITY {{0, 0, 0, 0, 0, 1}}
#define SECURITY_WORLD_RID 0x00000000L
#define SECURITY_CREATOR_SID_AUTHORITY {{0, 0, 0, 0, 0, 3}}
#define SECURITY_CREATOR_OWNER_RID 0x00000000L

/* What a SID stands for. */
typedef enum _SID_NAME_USE {
    SidTypeUser = 1,
    SidTypeGroup = 2,
    SidTypeAlias = 4,
    SidTypeWellKnownGroup = 5
} SID_NAME_USE, *PSID_NAME_USE;

typedef struct _SID_AND_ATTRIBUTES {
    PSID Sid;
    DWORD Attributes;
} SID_AND_ATTRIBUTES, *PSID_AND_ATTRIBUTES;

/* Access control lists: 8 bytes, then the entries back to back. */
typedef struct _ACL {
    BYTE AclRevision;
    BYTE Sbz1;
    WORD AclSize;
    WORD AceCount;
    WORD Sbz2;
} ACL, *PACL;

typedef struct _ACE_HEADER {
    BYTE AceType;
    BYTE AceFlags;
    WORD AceSize;
} ACE_HEADER, *PACE_HEADER;

typedef DWORD ACCESS_MASK;
typedef struct _ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    DWORD SidStart;
} ACCESS_ALLOWED_ACE, *PACCESS_ALLOWED_ACE;

#define ACL_REVISION 2
#define ACCESS_ALLOWED_ACE_TYPE 0
#define ACCESS_DENIED_ACE_TYPE 1
#define OBJECT_INHERIT_ACE 0x1
#define CONTAINER_INHERIT_ACE 0x2
#define NO_PROPAGATE_INHERIT_ACE 0x4
#define INHERIT_ONLY_ACE 0x8
#define INHERITED_ACE 0x10

typedef enum _ACL_INFORMATION_CLASS { AclSizeInformation = 2 } ACL_INFORMATION_CLASS;
typedef struct _ACL_SIZE_INFORMATION {
    DWORD AceCount;
    DWORD AclBytesInUse;
    DWORD AclBytesFree;
} ACL_SIZE_INFORMATION, *PACL_SIZE_INFORMATION;

/* Access tokens: who a process or a thread acts as. */
#define TOKEN_DUPLICATE 0x0002
#define TOKEN_IMPERSONATE 0x0004
#define TOKEN_QUERY 0x0008
#define TOKEN_READ (STANDARD_RIGHTS_READ | TOKEN_QUERY)

typedef enum _TOKEN_INFORMATION_CLASS { TokenUser = 1, TokenGroups = 2 } TOKEN_INFORMATION_CLASS;
typedef struct _TOKEN_USER {
    SID_AND_ATTRIBUTES User;
} TOKEN_USER, *PTOKEN_USER;
typedef struct _TOKEN_GROUPS {
    DWORD GroupCount;
    SID_AND_ATTRIBUTES Groups[1]; /* GroupCount of them */
} TOKEN_GROUPS, *PTOKEN_GROUPS;

#define SE_GROUP_MANDATORY 0x00000001L
#define SE_GROUP_ENABLED_BY_DEFAULT 0x00000002L
#define SE_GROUP_ENABLED 0x00000004L

typedef PVOID PSECURITY_DESCRIPTOR;
typedef WORD SECURITY_DESCRIPTOR_CONTROL, *PSECURITY_DESCRIPTOR_CONTROL;

#define SECURITY_DESCRIPTOR_REVISION 1
#define SECURITY_DESCRIPTOR_MIN_LENGTH (sizeof(SECURITY_DESCRIPTOR))
#define SE_OWNER_DEFAULTED 0x0001
#define SE_GROUP_DEFAULTED 0x0002
#define SE_DACL_PRESENT 0x0004
#define SE_DACL_DEFAULTED 0x0008
#define SE_SACL_PRESENT 0x0010
#define SE_SELF_RELATIVE 0x8000

/* Absolute form: pointers. */
typedef struct _SECURITY_DESCRIPTOR {
    BYTE Revision;
    BYTE Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
} SECURITY_DESCRIPTOR;

/* Self-relative form, 20 bytes: offsets from the start of the descriptor, 0 for none. */
typedef struct _SECURITY_DESCRIPTOR_RELATIVE {
    BYTE Revision;
    BYTE Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    DWORD Owner;
    DWORD Group;
    DWORD Sacl;
    DWORD Dacl;
} SECURITY_DESCRIPTOR_RELATIVE;

/* Registry value types and access rights. */
#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_MULTI_SZ 7
#define REG_QWORD 11

#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_CREATE_SUB_KEY 0x0004
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_NOTIFY 0x0010
#define KEY_CREATE_LINK 0x0020
#define KEY_READ ((STANDARD_RIGHTS_READ | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY) & ~SYNCHRONIZE)
#define KEY_WRITE ((STANDARD_RIGHTS_WRITE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY) & ~SYNCHRONIZE)
#define KEY_ALL_ACCESS                                                                                                 \
    ((STANDARD_RIGHTS_ALL | KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_ENUMERATE_SUB_KEYS |            \
      KEY_NOTIFY | KEY_CREATE_LINK) &                                                                                  \
     ~SYNCHRONIZE)
#define REG_OPTION_NON_VOLATILE 0
#define REG_CREATED_NEW_KEY 1
#define REG_OPENED_EXISTING_KEY 2

/* Processes and files. */
#define PROCESS_QUERY_INFORMATION 0x0400
#define PAGE_READONLY 0x02
#define PAGE_READWRITE 0x04
#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define FILE_ATTRIBUTE_NORMAL 0x00000080
#define VER_PLATFORM_WIN32_WINDOWS 1
#define VER_PLATFORM_WIN32_NT 2
#define DLL_PROCESS_DETACH 0
#define DLL_PROCESS_ATTACH 1
#define DLL_THREAD_ATTACH 2
#define DLL_THREAD_DETACH 3
#define STATUS_PENDING 0x00000103

#define HEAP_ZERO_MEMORY 0x00000008

/* Interlocked operations: full barriers. The And and Or forms give the value before, Increment and Decrement the one after. */
static inline LONG InterlockedIncrement(LONG volatile* addend) {
    return __atomic_add_fetch(addend, 1, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedDecrement(LONG volatile* addend) {
    return __atomic_sub_fetch(addend, 1, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedOr(LONG volatile* destination, LONG value) {
    return __atomic_fetch_or(destination, value, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedAnd(LONG volatile* destination, LONG value) {
    return __atomic_fetch_and(destination, value, __ATOMIC_SEQ_CST);
}

WINBASE_END

#endif

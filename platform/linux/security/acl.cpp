// Access control lists.
#include "security/records.h"

#include "base/call.h"

#include <securitybaseapi.h>

#include <cstring>

using namespace oriel;

BOOL WINAPI InitializeAcl(PACL acl, DWORD aclLength, DWORD revision) {
    if (aclLength < sizeof(ACL)) return Fail(ERROR_INSUFFICIENT_BUFFER);
    if (acl == nullptr || revision != ACL_REVISION || aclLength > 0xFFFF) return Fail(ERROR_INVALID_PARAMETER);
    *acl = {};
    acl->AclRevision = ACL_REVISION;
    acl->AclSize = static_cast<WORD>(aclLength & ~3U);
    return TRUE;
}

BOOL WINAPI IsValidAcl(PACL acl) {
    return AclCopy(acl).Valid() ? TRUE : FALSE;
}

BOOL WINAPI AddAccessAllowedAce(PACL acl, DWORD revision, DWORD accessMask, PSID sid) {
    const SidCopy sidCopy(sid);
    if (!sidCopy.Valid()) return Fail(ERROR_INVALID_SID);
    if (revision != ACL_REVISION) return Fail(ERROR_REVISION_MISMATCH);
    const AclCopy list(acl);
    if (!list.Valid()) return Fail(ERROR_INVALID_ACL);
    const size_t at = list.EntryOffset(list.count);
    const size_t size = kAceSidOffset + sidCopy.length;
    if (size > list.size - at || list.count == 0xFFFF) return Fail(ERROR_ALLOTTED_SPACE_EXCEEDED);

    ACCESS_ALLOWED_ACE entry{};
    entry.Header.AceType = ACCESS_ALLOWED_ACE_TYPE;
    entry.Header.AceSize = static_cast<WORD>(size);
    entry.Mask = accessMask;
    auto* target = reinterpret_cast<BYTE*>(acl) + at;
    std::memcpy(target, &entry, kAceSidOffset);
    std::memcpy(target + kAceSidOffset, sidCopy.bytes, sidCopy.length);
    ++acl->AceCount;
    return TRUE;
}

BOOL WINAPI GetAce(PACL acl, DWORD index, LPVOID* ace) {
    const AclCopy list(acl);
    if (ace == nullptr || !list.Valid() || index >= list.count) return Fail(ERROR_INVALID_PARAMETER);
    *ace = reinterpret_cast<BYTE*>(acl) + list.EntryOffset(index);
    return TRUE;
}

BOOL WINAPI GetAclInformation(PACL acl, LPVOID information, DWORD length, ACL_INFORMATION_CLASS informationClass) {
    if (informationClass != AclSizeInformation || information == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    if (length < sizeof(ACL_SIZE_INFORMATION)) return Fail(ERROR_INSUFFICIENT_BUFFER);
    const AclCopy list(acl);
    if (!list.Valid()) return Fail(ERROR_INVALID_ACL);
    const auto used = static_cast<DWORD>(list.EntryOffset(list.count));
    *static_cast<ACL_SIZE_INFORMATION*>(information) = {list.count, used, list.size - used};
    return TRUE;
}

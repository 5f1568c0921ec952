// The calls on SIDs, access control lists and security descriptors of both forms. No state.
#include "base/call.h"
#include "security/records.h"

#include <cstdlib>
#include <cstring>
#include <securitybaseapi.h>

namespace oriel {
namespace {

constexpr BYTE kMostAtOnce = 8; // limit of AllocateAndInitializeSid

// The descriptor if it is absolute and can be changed; null with the last error otherwise.
SECURITY_DESCRIPTOR* Changeable(PSECURITY_DESCRIPTOR descriptor) {
    const DescriptorParts parts(descriptor);
    if (!parts.valid) return Fail<SECURITY_DESCRIPTOR*>(ERROR_UNKNOWN_REVISION);
    if ((parts.control & SE_SELF_RELATIVE) != 0) return Fail<SECURITY_DESCRIPTOR*>(ERROR_INVALID_SECURITY_DESCR);
    return static_cast<SECURITY_DESCRIPTOR*>(descriptor);
}

void SetFlag(SECURITY_DESCRIPTOR_CONTROL& control, WORD flag, bool on) {
    control = static_cast<WORD>(on ? control | flag : control & ~flag);
}

BOOL SetSidPart(PSECURITY_DESCRIPTOR descriptor, PSID SECURITY_DESCRIPTOR::*part, PSID sid, WORD defaultedFlag,
                BOOL defaulted) {
    SECURITY_DESCRIPTOR* target = Changeable(descriptor);
    if (target == nullptr) return FALSE;
    if (sid != nullptr && !SidCopy(sid).Valid()) return Fail(ERROR_INVALID_SID);
    target->*part = sid;
    SetFlag(target->Control, defaultedFlag, sid != nullptr && defaulted != FALSE);
    return TRUE;
}

// The bytes of every part, in the order of the self-relative form.
struct PartCopies {
    AclCopy sacl;
    AclCopy dacl;
    SidCopy owner;
    SidCopy group;
    bool valid;

    explicit PartCopies(const DescriptorParts& parts)
        : sacl(parts.sacl), dacl(parts.dacl), owner(parts.owner), group(parts.group) {
        const auto fits = [](const void* part, const auto& copy) { return part == nullptr || copy.Valid(); };
        valid = parts.valid && fits(parts.sacl, sacl) && fits(parts.dacl, dacl) && fits(parts.owner, owner) &&
                fits(parts.group, group);
    }
    DWORD Length() const {
        return static_cast<DWORD>(sizeof(SECURITY_DESCRIPTOR_RELATIVE)) + sacl.size + dacl.size + owner.length +
               group.length;
    }
};

} // namespace
} // namespace oriel

using namespace oriel;

BOOL WINAPI AllocateAndInitializeSid(PSID_IDENTIFIER_AUTHORITY identifierAuthority, BYTE subAuthorityCount,
                                     DWORD subAuthority0, DWORD subAuthority1, DWORD subAuthority2, DWORD subAuthority3,
                                     DWORD subAuthority4, DWORD subAuthority5, DWORD subAuthority6, DWORD subAuthority7,
                                     PSID* sid) {
    if (subAuthorityCount == 0 || subAuthorityCount > kMostAtOnce) return Fail(ERROR_INVALID_SID);
    if (identifierAuthority == nullptr || sid == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    auto* bytes = static_cast<BYTE*>(std::malloc(kSidHeaderSize + subAuthorityCount * sizeof(DWORD)));
    if (bytes == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY);
    const DWORD all[kMostAtOnce] = {subAuthority0, subAuthority1, subAuthority2, subAuthority3,
                                    subAuthority4, subAuthority5, subAuthority6, subAuthority7};
    bytes[0] = SID_REVISION;
    bytes[1] = subAuthorityCount;
    std::memcpy(bytes + offsetof(SID, IdentifierAuthority), identifierAuthority, sizeof *identifierAuthority);
    std::memcpy(bytes + kSidHeaderSize, all, subAuthorityCount * sizeof(DWORD));
    *sid = bytes;
    return TRUE;
}

PVOID WINAPI FreeSid(PSID sid) {
    std::free(sid);
    return nullptr;
}

DWORD WINAPI GetLengthSid(PSID sid) {
    const SidCopy copy(sid);
    if (!copy.Valid()) SetLastError(ERROR_INVALID_SID);
    return copy.length;
}

BOOL WINAPI EqualSid(PSID sid1, PSID sid2) {
    const SidCopy first(sid1);
    const SidCopy second(sid2);
    if (first.Valid() && second.Valid()) return first == second ? TRUE : FALSE;
    return Fail(ERROR_INVALID_SID);
}

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

BOOL WINAPI InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision) {
    if (revision != SECURITY_DESCRIPTOR_REVISION) return Fail(ERROR_UNKNOWN_REVISION);
    if (descriptor == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    auto* target = static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    *target = {};
    target->Revision = SECURITY_DESCRIPTOR_REVISION;
    return TRUE;
}

BOOL WINAPI SetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR descriptor, PSID owner, BOOL defaulted) {
    return SetSidPart(descriptor, &SECURITY_DESCRIPTOR::Owner, owner, SE_OWNER_DEFAULTED, defaulted);
}

BOOL WINAPI SetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR descriptor, PSID group, BOOL defaulted) {
    return SetSidPart(descriptor, &SECURITY_DESCRIPTOR::Group, group, SE_GROUP_DEFAULTED, defaulted);
}

BOOL WINAPI SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL dacl, BOOL defaulted) {
    SECURITY_DESCRIPTOR* target = Changeable(descriptor);
    if (target == nullptr) return FALSE;
    if (present == FALSE) {
        dacl = nullptr;
        defaulted = FALSE;
    }
    if (dacl != nullptr && !AclCopy(dacl).Valid()) return Fail(ERROR_INVALID_ACL);
    target->Dacl = dacl;
    SetFlag(target->Control, SE_DACL_PRESENT, present != FALSE);
    SetFlag(target->Control, SE_DACL_DEFAULTED, defaulted != FALSE);
    return TRUE;
}

BOOL WINAPI GetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, LPBOOL present, PACL* dacl, LPBOOL defaulted) {
    if (present == nullptr || dacl == nullptr || defaulted == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    const DescriptorParts parts(descriptor);
    if (!parts.valid) return Fail(ERROR_UNKNOWN_REVISION);
    *present = (parts.control & SE_DACL_PRESENT) != 0 ? TRUE : FALSE;
    if (*present == FALSE) return TRUE;
    *dacl = static_cast<PACL>(const_cast<void*>(parts.dacl));
    *defaulted = (parts.control & SE_DACL_DEFAULTED) != 0 ? TRUE : FALSE;
    return TRUE;
}

DWORD WINAPI GetSecurityDescriptorLength(PSECURITY_DESCRIPTOR descriptor) {
    const PartCopies copies{DescriptorParts(descriptor)};
    return copies.valid ? copies.Length() : static_cast<DWORD>(SECURITY_DESCRIPTOR_MIN_LENGTH);
}

BOOL WINAPI MakeSelfRelativeSD(PSECURITY_DESCRIPTOR absolute, PSECURITY_DESCRIPTOR selfRelative, LPDWORD length) {
    if (length == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    const DescriptorParts parts(absolute);
    const PartCopies copies(parts);
    if (!copies.valid) return Fail(ERROR_INVALID_SECURITY_DESCR);
    if ((parts.control & SE_SELF_RELATIVE) != 0) return Fail(ERROR_BAD_DESCRIPTOR_FORMAT);
    const DWORD room = *length;
    *length = copies.Length();
    if (room < copies.Length()) return Fail(ERROR_INSUFFICIENT_BUFFER);
    if (selfRelative == nullptr) return Fail(ERROR_INVALID_PARAMETER);

    SECURITY_DESCRIPTOR_RELATIVE header{};
    header.Revision = SECURITY_DESCRIPTOR_REVISION;
    header.Control = static_cast<WORD>(parts.control | SE_SELF_RELATIVE);
    auto* begin = static_cast<BYTE*>(selfRelative);
    DWORD at = sizeof header;
    const auto append = [&](const BYTE* bytes, DWORD size) -> DWORD {
        if (size == 0) return 0;
        std::memcpy(begin + at, bytes, size);
        at += size;
        return at - size;
    };
    header.Sacl = append(copies.sacl.bytes.get(), copies.sacl.size);
    header.Dacl = append(copies.dacl.bytes.get(), copies.dacl.size);
    header.Owner = append(copies.owner.bytes, copies.owner.length);
    header.Group = append(copies.group.bytes, copies.group.length);
    std::memcpy(begin, &header, sizeof header);
    return TRUE;
}

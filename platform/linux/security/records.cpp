// Copies and checks of security records. No state.
#include "security/records.h"

#include "memory/guard.h"

#include <cstdint>
#include <cstring>
#include <new>

namespace oriel {
namespace {

constexpr BYTE kHighestAclRevision = 4;

bool IsAligned(const void* record) {
    return reinterpret_cast<uintptr_t>(record) % sizeof(DWORD) == 0;
}

// Bytes of the SID at the start of a record of the given size; 0 when it is not valid.
DWORD SidLength(const BYTE* record, size_t size) {
    if (size < kSidHeaderSize || record[0] != SID_REVISION || record[1] > SID_MAX_SUB_AUTHORITIES) return 0;
    const size_t length = kSidHeaderSize + record[1] * sizeof(DWORD);
    return length <= size ? static_cast<DWORD>(length) : 0;
}

ACE_HEADER EntryHeader(const BYTE* entry) {
    ACE_HEADER header;
    std::memcpy(&header, entry, sizeof header);
    return header;
}

// True when every entry lies within the list and is well formed.
bool EntriesAreValid(const BYTE* list, size_t size, size_t count) {
    size_t at = sizeof(ACL);
    for (; count > 0; --count) {
        if (size - at < sizeof(ACE_HEADER)) return false;
        const ACE_HEADER header = EntryHeader(list + at);
        if (header.AceSize < sizeof(ACE_HEADER) || header.AceSize % sizeof(DWORD) != 0) return false;
        if (header.AceSize > size - at) return false;
        if (header.AceType == ACCESS_ALLOWED_ACE_TYPE || header.AceType == ACCESS_DENIED_ACE_TYPE) {
            if (header.AceSize < kAceSidOffset) return false;
            if (SidLength(list + at + kAceSidOffset, header.AceSize - kAceSidOffset) == 0) return false;
        }
        at += header.AceSize;
    }
    return true;
}

} // namespace

SidCopy::SidCopy(const void* sid) {
    size_t copied = 0;
    if (sid == nullptr || !IsAligned(sid) || !GuardedRead(bytes, sid, kSidHeaderSize, &copied)) return;
    const DWORD whole = SidLength(bytes, sizeof bytes);
    if (whole == 0) return;
    const auto* rest = static_cast<const BYTE*>(sid) + kSidHeaderSize;
    if (GuardedRead(bytes + kSidHeaderSize, rest, whole - kSidHeaderSize, &copied)) length = whole;
}

SidCopy::SidCopy(BYTE authority, std::initializer_list<DWORD> subAuthorities) {
    std::memset(bytes, 0, kSidHeaderSize);
    bytes[0] = SID_REVISION;
    bytes[kSidHeaderSize - 1] = authority;
    for (const DWORD subAuthority : subAuthorities)
        std::memcpy(bytes + kSidHeaderSize + bytes[1]++ * sizeof subAuthority, &subAuthority, sizeof subAuthority);
    length = static_cast<DWORD>(kSidHeaderSize + bytes[1] * sizeof(DWORD));
}

DWORD SidCopy::SubAuthority(DWORD index) const {
    DWORD value = 0;
    std::memcpy(&value, bytes + kSidHeaderSize + index * sizeof value, sizeof value);
    return value;
}

bool SidCopy::operator==(const SidCopy& other) const {
    return length == other.length && std::memcmp(bytes, other.bytes, length) == 0;
}

AclCopy::AclCopy(const void* acl) {
    ACL header;
    if (acl == nullptr || !IsAligned(acl) || !GuardedCopy(header, acl)) return;
    if (header.AclRevision < ACL_REVISION || header.AclRevision > kHighestAclRevision) return;
    if (header.AclSize < sizeof header || header.AclSize % sizeof(DWORD) != 0) return;
    bytes.reset(new (std::nothrow) BYTE[header.AclSize]);
    if (bytes == nullptr) return;
    std::memcpy(bytes.get(), &header, sizeof header);
    const auto* entries = static_cast<const BYTE*>(acl) + sizeof header;
    size_t copied = 0;
    if (!GuardedRead(bytes.get() + sizeof header, entries, header.AclSize - sizeof header, &copied)) return;
    if (!EntriesAreValid(bytes.get(), header.AclSize, header.AceCount)) return;
    size = header.AclSize;
    count = header.AceCount;
}

size_t AclCopy::EntryOffset(DWORD index) const {
    size_t at = sizeof(ACL);
    for (; index > 0; --index)
        at += EntryHeader(bytes.get() + at).AceSize;
    return at;
}

DescriptorParts::DescriptorParts(const void* descriptor) {
    // Both forms begin alike; the shorter one says which it is.
    SECURITY_DESCRIPTOR_RELATIVE relative;
    if (!IsAligned(descriptor) || !GuardedCopy(relative, descriptor)) return;
    if (relative.Revision != SECURITY_DESCRIPTOR_REVISION) return;
    control = relative.Control;
    if ((control & SE_SELF_RELATIVE) != 0) {
        const auto begin = reinterpret_cast<uintptr_t>(descriptor);
        bool within = true;
        const auto part = [&](DWORD offset) -> const void* {
            if (offset == 0) return nullptr;
            if (offset >= sizeof relative && offset <= UINTPTR_MAX - begin)
                return static_cast<const BYTE*>(descriptor) + offset;
            within = false;
            return nullptr;
        };
        owner = part(relative.Owner);
        group = part(relative.Group);
        sacl = part(relative.Sacl);
        dacl = part(relative.Dacl);
        valid = within;
    } else {
        SECURITY_DESCRIPTOR absolute;
        if (!GuardedCopy(absolute, descriptor)) return;
        owner = absolute.Owner;
        group = absolute.Group;
        sacl = absolute.Sacl;
        dacl = absolute.Dacl;
        valid = true;
    }
    if ((control & SE_DACL_PRESENT) == 0) dacl = nullptr;
    if ((control & SE_SACL_PRESENT) == 0) sacl = nullptr;
}

namespace {

constexpr BYTE kEveryone[12] = {SID_REVISION, 1, 0, 0, 0, 0, 0, 1}; // S-1-1-0

} // namespace

ForEveryone GrantedToEveryone(const SECURITY_ATTRIBUTES* attributes) {
    SECURITY_ATTRIBUTES copy;
    if (attributes == nullptr || !GuardedCopy(copy, attributes) || copy.lpSecurityDescriptor == nullptr)
        return ForEveryone::Nothing;
    const DescriptorParts parts(copy.lpSecurityDescriptor);
    if (!parts.valid || (parts.control & SE_DACL_PRESENT) == 0) return ForEveryone::Nothing;
    if (parts.dacl == nullptr) return ForEveryone::All;
    ForEveryone granted = ForEveryone::Nothing;
    const AclCopy list(parts.dacl);
    for (DWORD i = 0; i < list.count; ++i) {
        const BYTE* entry = list.bytes.get() + list.EntryOffset(i);
        ACCESS_ALLOWED_ACE fixed;
        std::memcpy(&fixed.Header, entry, sizeof fixed.Header);
        // A list that denies somebody something is not open to everyone.
        if (fixed.Header.AceType == ACCESS_DENIED_ACE_TYPE) return granted;
        if (fixed.Header.AceType != ACCESS_ALLOWED_ACE_TYPE || (fixed.Header.AceFlags & INHERIT_ONLY_ACE) != 0)
            continue;
        std::memcpy(&fixed.Mask, entry + offsetof(ACCESS_ALLOWED_ACE, Mask), sizeof fixed.Mask);
        const size_t sidSize = fixed.Header.AceSize - kAceSidOffset;
        if (sidSize < sizeof kEveryone || std::memcmp(entry + kAceSidOffset, kEveryone, sizeof kEveryone) != 0)
            continue;
        if ((fixed.Mask & GENERIC_ALL) != 0) return ForEveryone::All;
        if ((fixed.Mask & GENERIC_READ) != 0) granted = ForEveryone::Read;
    }
    return granted;
}

} // namespace oriel

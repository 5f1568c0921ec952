// Security records read from memory that nobody vouches for: copied once under the fault guard, then checked in the
// copy. Layouts: Win32, "SID structure", "ACL structure", "SECURITY_DESCRIPTOR structure".
#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <minwinbase.h>
#include <winnt.h>

namespace oriel {

constexpr size_t kSidHeaderSize = 8;
constexpr size_t kMaxSidSize = kSidHeaderSize + SID_MAX_SUB_AUTHORITIES * sizeof(DWORD);
constexpr size_t kAceSidOffset = offsetof(ACCESS_ALLOWED_ACE, SidStart);

// A valid SID: revision 1, at most 15 sub-authorities.
struct SidCopy {
    DWORD length = 0; // bytes in use; 0 when there is no valid SID
    alignas(DWORD) BYTE bytes[kMaxSidSize];

    SidCopy() = default;
    explicit SidCopy(const void* sid);
    SidCopy(BYTE authority, std::initializer_list<DWORD> subAuthorities);
    bool Valid() const { return length != 0; }
    DWORD SubAuthorities() const { return bytes[1]; }
    DWORD SubAuthority(DWORD index) const;
    bool operator==(const SidCopy& other) const;
};

// A valid access control list: header, count and every entry agree with its size, and entries that allow or deny hold a
// valid SID.
struct AclCopy {
    WORD size = 0; // bytes; 0 when there is no valid list
    WORD count = 0;
    std::unique_ptr<BYTE[]> bytes;

    explicit AclCopy(const void* acl);
    bool Valid() const { return size != 0; }
    // Offset of an entry; that of the free space for index == count.
    size_t EntryOffset(DWORD index) const;
};

// The parts of a descriptor of either form: addresses, null for none. They have not been looked into.
struct DescriptorParts {
    bool valid = false; // the header could be read and has revision 1, and no part lies beyond the end of memory
    WORD control = 0;
    const void* owner = nullptr;
    const void* group = nullptr;
    const void* sacl = nullptr;
    const void* dacl = nullptr;

    explicit DescriptorParts(const void* descriptor);
};

// True when everyone has full access: the descriptor has a DACL that is null, or one with an access-allowed entry of
// GENERIC_ALL for Everyone that no denying entry stands before. False without attributes or descriptor, without a DACL,
// and for a descriptor that is invalid: its memory is read under the fault guard and every count and offset is checked.
bool GrantsEveryone(const SECURITY_ATTRIBUTES* attributes);

} // namespace oriel

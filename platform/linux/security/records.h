// Security records from untrusted memory: copied once under the fault guard, then checked in the copy. Layouts: Win32,
// "SID structure", "ACL structure", "SECURITY_DESCRIPTOR structure". No state.
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
    DWORD length = 0; // bytes in use; 0: not a valid SID
    alignas(DWORD) BYTE bytes[kMaxSidSize];

    SidCopy() = default;
    explicit SidCopy(const void* sid);
    SidCopy(BYTE authority, std::initializer_list<DWORD> subAuthorities);
    bool Valid() const { return length != 0; }
    DWORD SubAuthorities() const { return bytes[1]; }
    DWORD SubAuthority(DWORD index) const;
    bool operator==(const SidCopy& other) const;
};

// A valid access control list: header, count and every entry agree with its size, and allowing and denying entries have
// a valid SID.
struct AclCopy {
    WORD size = 0; // bytes; 0: not a valid list
    WORD count = 0;
    std::unique_ptr<BYTE[]> bytes;

    explicit AclCopy(const void* acl);
    bool Valid() const { return size != 0; }
    // Offset of an entry; for index == count that of the free space.
    size_t EntryOffset(DWORD index) const;
};

// The parts of a descriptor of either form: addresses, null when absent. They are not checked.
struct DescriptorParts {
    bool valid = false; // the header is readable and has revision 1, and no part is beyond the end of memory
    WORD control = 0;
    const void* owner = nullptr;
    const void* group = nullptr;
    const void* sacl = nullptr;
    const void* dacl = nullptr;

    explicit DescriptorParts(const void* descriptor);
};

// What everyone may do. All: the DACL is null, or has an allowing entry of GENERIC_ALL for Everyone with no denying
// entry before it. Read: it has such an entry of GENERIC_READ only. Nothing without attributes, descriptor or DACL, and
// for an invalid descriptor: its memory is read under the fault guard, and every count and offset is checked.
enum class ForEveryone : DWORD { Nothing, Read, All };
ForEveryone GrantedToEveryone(const SECURITY_ATTRIBUTES* attributes);

} // namespace oriel

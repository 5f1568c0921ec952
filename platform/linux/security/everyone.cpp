// Whether security attributes open an object to all users of the machine. Keeps nothing.
#include "security/everyone.h"

#include "memory/guard.h"
#include "security/records.h"

#include <cstring>

namespace oriel {
namespace {

constexpr BYTE kEveryone[12] = {SID_REVISION, 1, 0, 0, 0, 0, 0, 1}; // S-1-1-0

} // namespace

bool GrantsEveryone(const SECURITY_ATTRIBUTES* attributes) {
    SECURITY_ATTRIBUTES copy;
    if (attributes == nullptr || !GuardedCopy(copy, attributes) || copy.lpSecurityDescriptor == nullptr) return false;
    const DescriptorParts parts(copy.lpSecurityDescriptor);
    if (!parts.valid || (parts.control & SE_DACL_PRESENT) == 0) return false;
    if (parts.dacl == nullptr) return true;
    const AclCopy list(parts.dacl);
    for (DWORD i = 0; i < list.count; ++i) {
        const BYTE* entry = list.bytes.get() + list.EntryOffset(i);
        ACCESS_ALLOWED_ACE fixed;
        std::memcpy(&fixed.Header, entry, sizeof fixed.Header);
        // Whoever is denied something is not everyone; such a list is left to those who can read it.
        if (fixed.Header.AceType == ACCESS_DENIED_ACE_TYPE) return false;
        if (fixed.Header.AceType != ACCESS_ALLOWED_ACE_TYPE || (fixed.Header.AceFlags & INHERIT_ONLY_ACE) != 0)
            continue;
        std::memcpy(&fixed.Mask, entry + offsetof(ACCESS_ALLOWED_ACE, Mask), sizeof fixed.Mask);
        const size_t sidSize = fixed.Header.AceSize - kAceSidOffset;
        if ((fixed.Mask & GENERIC_ALL) != 0 && sidSize >= sizeof kEveryone &&
            std::memcmp(entry + kAceSidOffset, kEveryone, sizeof kEveryone) == 0)
            return true;
    }
    return false;
}

} // namespace oriel

// Security identifiers.
#include "security/records.h"

#include "base/call.h"

#include <securitybaseapi.h>

#include <cstdlib>
#include <cstring>

namespace oriel {
namespace {

constexpr BYTE kMostAtOnce = 8; // sub-authorities that AllocateAndInitializeSid takes

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

BOOL WINAPI IsValidSid(PSID sid) {
    return SidCopy(sid).Valid() ? TRUE : FALSE;
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

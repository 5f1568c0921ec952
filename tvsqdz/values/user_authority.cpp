// Where the authority comes from. Keeps nothing.
#include "values/user_authority.h"

#include "base/memory.h"
#include "base/system.h"
#include "manager/variables.h"
#include "product/authority_rules.h"
#include "product/growing_reads.h"
#include "product/guards.h"
#include "product/variable_names.h"

#include <string.h>
#include <winspool.h>

namespace {

// What the component that serves such a port says; nothing when that cannot be read.
uint32_t StoredAuthority(const ManagerDatabase& database) {
    uint32_t authority = 0;
    DWORD size = 0;
    if (ReadVariable(database, names::kUserAuthority, &authority, sizeof authority, &size) != Answer::Done) return 0;
    return authority;
}

uint32_t ListAuthority(const ManagerDatabase& database) {
    AccessControlList list;
    if (list.Load(database) != TVS_OK) return TVS_AUTHORITY_PRINT;
    return AclAuthority(list.Acl(), list.AclSize());
}

} // namespace

uint32_t StoredPortKind(const ManagerDatabase& database) {
    TvsPortRecord port = {};
    DWORD size = 0;
    if (ReadVariable(database, names::kPort, &port, sizeof port, &size) != Answer::Done) return 0;
    return port.portKind;
}

uint32_t UserAuthority(const ManagerRecord* manager) {
    switch (AuthoritySourceOf(StoredPortKind(manager->printerDatabase), g_processKindMask.load(),
                              SystemVersion().dwPlatformId, manager->userName)) {
    case AuthoritySource::StoredValue:
        return StoredAuthority(manager->printerDatabase);
    case AuthoritySource::Polling:
        return kPollingAuthority;
    case AuthoritySource::NoAccounts:
    case AuthoritySource::PortMonitor:
        return kAllAuthority;
    case AuthoritySource::AccessList:
        return ListAuthority(manager->printerDatabase);
    }
    return 0;
}

uint32_t UserAuthorityRead(ManagerRecord* manager, void* buffer) {
    uint32_t authority = 0;
    if (buffer != nullptr) {
        authority = UserAuthority(manager);
        memcpy(buffer, &authority, sizeof authority);
    }
    return sizeof authority;
}

// The authority that an access control list gives to the calling user. Keeps nothing.
//
// The list is hostile input: it is valid, and whole, or it gives nothing. Its entries are walked from one to the next,
// since GetAce counts from the first one each time; thousands fit a list.

namespace {

constexpr DWORD kAccountNameSize = 128; // of the buffers that a look-up fills

// Of an entry that allows or denies.
void Count(const ACCESS_ALLOWED_ACE& entry, ListedRights* rights) {
    rights->Count(entry.Header.AceType == ACCESS_DENIED_ACE_TYPE, entry.Mask);
}

// What a token says of its user or its groups.
class TokenInformation {
public:
    TokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS informationClass)
        : m_size(SizeOf(token, informationClass)), m_block(m_size) {
        m_given = m_size != 0 && m_block.Data() != nullptr &&
                  GetTokenInformation(token, informationClass, m_block.Data(), m_size, &m_size);
    }
    // Null where it cannot be had.
    const void* Data() { return m_given ? m_block.Data() : nullptr; }

private:
    static DWORD SizeOf(HANDLE token, TOKEN_INFORMATION_CLASS informationClass) {
        DWORD size = 0;
        GetTokenInformation(token, informationClass, nullptr, 0, &size);
        return size;
    }

    DWORD m_size;
    Scratch m_block;
    bool m_given;
};

struct CreatorOwner {
    CreatorOwner() {
        SID_IDENTIFIER_AUTHORITY authority = SECURITY_CREATOR_SID_AUTHORITY;
        if (!AllocateAndInitializeSid(&authority, 1, SECURITY_CREATOR_OWNER_RID, 0, 0, 0, 0, 0, 0, 0, &sid))
            sid = nullptr;
    }
    ~CreatorOwner() {
        if (sid != nullptr) FreeSid(sid);
    }
    CreatorOwner(const CreatorOwner&) = delete;
    CreatorOwner& operator=(const CreatorOwner&) = delete;

    PSID sid = nullptr; // null: gone on without it
};

HANDLE OpenCallersToken() {
    HANDLE token = nullptr;
    if (OpenThreadToken(GetCurrentThread(), TOKEN_READ, TRUE, &token)) return token;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_READ, &token) ? token : nullptr;
}

constexpr DWORD kSidHeader = offsetof(SID, SubAuthority);

DWORD LengthOf(const SID& sid) {
    return kSidHeader + sid.SubAuthorityCount * static_cast<DWORD>(sizeof(DWORD));
}

// For SIDs that are known to be whole: EqualSid looks into that anew, which takes long for memory of a heap.
bool Same(const SID& a, const SID& b) {
    return a.SubAuthorityCount == b.SubAuthorityCount && memcmp(&a, &b, LengthOf(a)) == 0;
}

const SID& AsSid(PSID sid) {
    return *static_cast<const SID*>(sid);
}

// The index of the group; their count when it is none of them.
DWORD FindGroup(const TOKEN_GROUPS& groups, const SID& sid) {
    DWORD i = 0;
    while (i < groups.GroupCount && !Same(AsSid(groups.Groups[i].Sid), sid))
        ++i;
    return i;
}

// What the SID is of; 0 when no account has it, as after the account was deleted. known: what was found out before,
// zero at first. Accounts are asked for once, since that may take long and a list may name one thousands of times.
int UseOf(const SID& sid, BYTE* known) {
    constexpr BYTE kAsked = 0x80;
    if (*known == 0) {
        char name[kAccountNameSize];
        char domain[kAccountNameSize];
        DWORD nameSize = sizeof name;
        DWORD domainSize = sizeof domain;
        SID_NAME_USE use = SidTypeUser;
        const bool found =
            LookupAccountSidA(nullptr, const_cast<SID*>(&sid), name, &nameSize, domain, &domainSize, &use);
        *known = static_cast<BYTE>(kAsked | (found ? use : 0));
    }
    return *known & ~kAsked;
}

// The SID of an entry that allows or denies; null for other entries, and for one that reaches beyond its entry.
const SID* SidOf(const ACCESS_ALLOWED_ACE& entry) {
    constexpr DWORD kSidOffset = offsetof(ACCESS_ALLOWED_ACE, SidStart);
    if (entry.Header.AceType != ACCESS_ALLOWED_ACE_TYPE && entry.Header.AceType != ACCESS_DENIED_ACE_TYPE)
        return nullptr;
    if (entry.Header.AceSize < kSidOffset + kSidHeader) return nullptr;
    const auto* sid = reinterpret_cast<const SID*>(&entry.SidStart);
    return LengthOf(*sid) <= entry.Header.AceSize - kSidOffset ? sid : nullptr;
}

} // namespace

uint32_t AclAuthority(const void* acl, uint32_t size) {
    auto* list = static_cast<PACL>(const_cast<void*>(acl));
    if (size < sizeof(ACL) || list->AclSize > size || !IsValidAcl(list)) return 0;

    const KernelHandle token(OpenCallersToken());
    if (!token) return 0;
    TokenInformation userInformation(token.Get(), TokenUser);
    TokenInformation groupInformation(token.Get(), TokenGroups);
    if (userInformation.Data() == nullptr || groupInformation.Data() == nullptr) return 0;
    const SID& user = AsSid(static_cast<const TOKEN_USER*>(userInformation.Data())->User.Sid);
    const auto& groups = *static_cast<const TOKEN_GROUPS*>(groupInformation.Data());
    ACL_SIZE_INFORMATION sizes = {};
    if (!GetAclInformation(list, &sizes, sizeof sizes, AclSizeInformation)) return 0;

    const CreatorOwner creatorOwner;
    BYTE knownOfUser = 0;
    BYTE knownOfOwner = 0;
    Scratch knownOfGroups(groups.GroupCount);
    if (knownOfGroups.Data() == nullptr) return 0;
    ListedRights usersRights;
    ListedRights ownersRights;
    const auto* at = static_cast<const BYTE*>(acl) + sizeof(ACL);
    for (DWORD i = 0; i < sizes.AceCount; ++i) {
        const auto& entry = *reinterpret_cast<const ACCESS_ALLOWED_ACE*>(at);
        at += entry.Header.AceSize;
        const SID* sid = SidOf(entry);
        if (sid == nullptr) continue;
        const DWORD group = FindGroup(groups, *sid);
        // No entry of somebody else's matters, so nobody asks whose it is.
        if (Same(*sid, user)) {
            if (UseOf(*sid, &knownOfUser) == SidTypeUser) Count(entry, &usersRights);
        } else if (group < groups.GroupCount) {
            const int use = UseOf(*sid, knownOfGroups.Data() + group);
            if (use != 0 && use != SidTypeUser) Count(entry, &usersRights);
        } else if (creatorOwner.sid != nullptr && Same(*sid, AsSid(creatorOwner.sid))) {
            if (UseOf(*sid, &knownOfOwner) != 0) Count(entry, &ownersRights);
        }
    }
    return AuthorityOfRights(SystemVersion().dwMajorVersion, usersRights.Effective(), ownersRights.Effective());
}

// One value of the service, held in the record while it is small and in a block of the heap beyond that.

void AccessControlList::Drop() {
    FreeBlock(m_block);
    m_block = nullptr;
    m_size = 0;
}

Status AccessControlList::Load(const ManagerDatabase& database) {
    Drop();
    DWORD size = 0;
    Answer answer = ReadVariable(database, names::kAccessControlList, m_small, sizeof m_small, &size);
    if (answer == Answer::BufferTooSmall) {
        const ReadAttempt result = ReadWhileItGrows([&] {
            FreeBlock(m_block);
            const DWORD room = size;
            m_block = static_cast<BYTE*>(AllocateZeroed(room));
            if (m_block == nullptr) return ReadAttempt::Failed;
            answer = ReadVariable(database, names::kAccessControlList, m_block, room, &size);
            return answer == Answer::BufferTooSmall ? ReadAttempt::Grew : ReadAttempt::Done;
        });
        if (result == ReadAttempt::Failed) return TVS_E_MEMORY;
    }
    if (answer != Answer::Done) {
        Drop();
        return PassOn(answer);
    }
    m_size = size;
    return TVS_OK;
}

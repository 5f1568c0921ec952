// Security identifiers, lists and descriptors.
#include "campaign.h"
#include "memory_kit.h"
#include "win32_kit.h"

#include <array>
#include <cstring>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<BYTE>;

constexpr SID_IDENTIFIER_AUTHORITY kWorld = SECURITY_WORLD_SID_AUTHORITY;

// Revision 1, DACL present, self-relative; list at 20, no owner, group at 48.
const Bytes kEveryoneDescriptor = {
    1, 0, 0x04, 0x80, 0, 0, 0, 0, 48, 0, 0, 0, 0, 0, 0, 0, 20, 0, 0, 0,
    // The list: revision 2, 28 bytes, one entry: allowed, no flags, 20 bytes, GENERIC_ALL, S-1-1-0.
    2, 0, 28, 0, 1, 0, 0, 0, 0, 0, 20, 0, 0, 0, 0, 0x10, 1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0,
    // The group: S-1-1-0.
    1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};

struct Sid {
    PSID sid = nullptr;

    explicit Sid(BYTE count = 1, DWORD first = SECURITY_WORLD_RID) {
        SID_IDENTIFIER_AUTHORITY authority = kWorld;
        EXPECT_TRUE(AllocateAndInitializeSid(&authority, count, first, 2, 3, 4, 5, 6, 7, 8, &sid));
    }
    ~Sid() { EXPECT_EQ(FreeSid(sid), nullptr); }
    Sid(const Sid&) = delete;
    Sid& operator=(const Sid&) = delete;
};

// As the library builds the security of its objects.
Bytes BuildEveryoneDescriptor() {
    const Sid everyone;
    SECURITY_DESCRIPTOR absolute;
    EXPECT_TRUE(InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION));
    EXPECT_TRUE(SetSecurityDescriptorOwner(&absolute, nullptr, FALSE));
    EXPECT_TRUE(SetSecurityDescriptorGroup(&absolute, everyone.sid, FALSE));
    alignas(DWORD) BYTE list[64];
    auto* acl = reinterpret_cast<PACL>(list);
    EXPECT_TRUE(InitializeAcl(acl, 8 + GetLengthSid(everyone.sid) + 8, ACL_REVISION));
    EXPECT_TRUE(AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, everyone.sid));
    EXPECT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, acl, FALSE));
    Bytes relative(GetSecurityDescriptorLength(&absolute));
    DWORD length = static_cast<DWORD>(relative.size());
    for (DWORD room : {DWORD{0}, length - 1})
        EXPECT_FAILS(MakeSelfRelativeSD(&absolute, relative.data(), &room), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(MakeSelfRelativeSD(&absolute, relative.data(), &length));
    EXPECT_EQ(length, relative.size());
    return relative;
}

// Walks a record by every call that reads one. Nothing is expected of the answers but that they come.
void ReadEverything(void* record) {
    GetLengthSid(record);
    EqualSid(record, record);
    auto* acl = static_cast<PACL>(record);
    if (IsValidAcl(acl)) {
        LPVOID entry = nullptr;
        for (DWORD i = 0; GetAce(acl, i, &entry); ++i)
            ASSERT_LT(static_cast<BYTE*>(entry), static_cast<BYTE*>(record) + 0x10000);
    }
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    GetSecurityDescriptorDacl(record, &present, &acl, &defaulted);
    if (present) IsValidAcl(acl);
    GetSecurityDescriptorLength(record);
}

} // namespace

TEST(Descriptor, OfEveryoneHasTheseBytes) {
    const Bytes built = BuildEveryoneDescriptor();
    EXPECT_EQ(built, kEveryoneDescriptor);
    auto* descriptor = const_cast<BYTE*>(kEveryoneDescriptor.data());
    EXPECT_EQ(GetSecurityDescriptorLength(descriptor), kEveryoneDescriptor.size());
    BOOL present = FALSE;
    BOOL defaulted = TRUE;
    PACL acl = nullptr;
    ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &acl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_FALSE(defaulted);
    ASSERT_EQ(reinterpret_cast<BYTE*>(acl), descriptor + 20);
    LPVOID entry = nullptr;
    ASSERT_TRUE(GetAce(acl, 0, &entry));
    const auto* ace = static_cast<const ACCESS_ALLOWED_ACE*>(entry);
    EXPECT_EQ(ace->Mask, static_cast<ACCESS_MASK>(GENERIC_ALL));
    EXPECT_TRUE(EqualSid(const_cast<DWORD*>(&ace->SidStart), Sid().sid));
    EXPECT_FALSE(GetAce(acl, 1, &entry));
}

TEST(Descriptor, WithoutListAllowsEverythingOrSaysNothing) {
    SECURITY_DESCRIPTOR descriptor;
    EXPECT_FALSE(InitializeSecurityDescriptor(&descriptor, 2));
    ASSERT_TRUE(InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION));
    BOOL present = TRUE;
    BOOL defaulted = FALSE;
    PACL acl = nullptr;
    EXPECT_TRUE(GetSecurityDescriptorDacl(&descriptor, &present, &acl, &defaulted));
    EXPECT_FALSE(present);
    EXPECT_TRUE(SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE));
    EXPECT_TRUE(GetSecurityDescriptorDacl(&descriptor, &present, &acl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_EQ(acl, nullptr);
}

// Records that end where memory ends.
TEST(HostileRecords, TruncatedAtEveryLengthAreInvalid) {
    BadMemory memory;
    const Bytes list(kEveryoneDescriptor.begin() + 20, kEveryoneDescriptor.begin() + 48);
    const Bytes sid(kEveryoneDescriptor.begin() + 48, kEveryoneDescriptor.end());
    for (const Bytes& record : {kEveryoneDescriptor, list, sid})
        for (size_t length = 0; length <= record.size(); length += 4) {
            BYTE* place = memory.AtEnd(length);
            if (length > 0) std::memcpy(place, record.data(), length);
            const bool whole = length == record.size();
            ReadEverything(place);
            if (record.size() == list.size()) {
                EXPECT_EQ(IsValidAcl(reinterpret_cast<PACL>(place)), whole) << length;
            } else if (record.size() == sid.size()) {
                EXPECT_EQ(GetLengthSid(place) != 0, whole) << length;
            } else {
                EXPECT_EQ(GetSecurityDescriptorLength(place) == record.size(), whole) << length;
                SECURITY_ATTRIBUTES attributes{sizeof attributes, place, FALSE};
                HANDLE event = CreateEventA(&attributes, TRUE, FALSE, ("Truncated " + std::to_string(length)).c_str());
                EXPECT_TRUE(event != nullptr || !whole);
                if (event != nullptr) CloseHandle(event);
            }
        }
}

TEST(HostileRecordsCampaign, OddBytesAreReadWithoutAFault) {
    BadMemory memory;
    BYTE* place = memory.AtEnd(kEveryoneDescriptor.size());
    for (size_t at = 0; at < kEveryoneDescriptor.size(); ++at)
        for (const BYTE value : std::array<BYTE, 8>{0, 1, 2, 4, 20, 0x7F, 0x80, 0xFF}) {
            std::memcpy(place, kEveryoneDescriptor.data(), kEveryoneDescriptor.size());
            place[at] = value;
            ReadEverything(place);
            ReadEverything(place + 20);
            ReadEverything(place + 48);
        }
    std::mt19937_64 random(Seed());
    for (int round = Rounds(1000, 200000); round > 0; --round) {
        std::memcpy(place, kEveryoneDescriptor.data(), kEveryoneDescriptor.size());
        for (unsigned changes = 1 + random() % 4; changes > 0; --changes)
            place[random() % kEveryoneDescriptor.size()] = static_cast<BYTE>(random());
        ReadEverything(place);
        ReadEverything(place + 20);
    }
    for (const AddressCase& row : memory.Kinds(sizeof(SECURITY_DESCRIPTOR)))
        ReadEverything(row.address);
}

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
    EXPECT_TRUE(MakeSelfRelativeSD(&absolute, relative.data(), &length));
    EXPECT_EQ(length, relative.size());
    return relative;
}

// Walks a record by every call that reads one. Nothing is expected of the answers but that they come.
void ReadEverything(void* record) {
    IsValidSid(record);
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
    IsValidSecurityDescriptor(record);
    GetSecurityDescriptorLength(record);
}

} // namespace

TEST(Descriptor, OfEveryoneHasTheseBytes) {
    const Bytes built = BuildEveryoneDescriptor();
    EXPECT_EQ(built, kEveryoneDescriptor);
    auto* descriptor = const_cast<BYTE*>(kEveryoneDescriptor.data());
    EXPECT_TRUE(IsValidSecurityDescriptor(descriptor));
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

TEST(Descriptor, OfAllPartsComesOutWhole) {
    const Sid owner(8, 1);
    const Sid group(2, 99);
    alignas(DWORD) BYTE list[400];
    auto* acl = reinterpret_cast<PACL>(list);
    ASSERT_TRUE(InitializeAcl(acl, 8 + 8 + 40 + 8 + 16 + 20, ACL_REVISION));
    ASSERT_TRUE(AddAccessAllowedAce(acl, ACL_REVISION, 0x8, owner.sid));
    ASSERT_TRUE(AddAccessAllowedAce(acl, ACL_REVISION, 0x10, group.sid));
    SECURITY_DESCRIPTOR absolute;
    InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
    EXPECT_TRUE(SetSecurityDescriptorOwner(&absolute, owner.sid, TRUE));
    EXPECT_TRUE(SetSecurityDescriptorGroup(&absolute, group.sid, FALSE));
    EXPECT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, acl, TRUE));
    const DWORD needed = 20 + 100 + 40 + 16;
    EXPECT_EQ(GetSecurityDescriptorLength(&absolute), needed);
    alignas(DWORD) BYTE relative[needed];
    for (DWORD room : {0U, 19U, 20U, needed - 1}) {
        EXPECT_FAILS(MakeSelfRelativeSD(&absolute, relative, &room), ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(room, needed);
    }
    DWORD room = needed;
    ASSERT_TRUE(MakeSelfRelativeSD(&absolute, relative, &room));
    EXPECT_TRUE(IsValidSecurityDescriptor(relative));
    const auto* header = reinterpret_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(relative);
    EXPECT_EQ(header->Control, SE_SELF_RELATIVE | SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_OWNER_DEFAULTED);
    EXPECT_TRUE(EqualSid(relative + header->Owner, owner.sid));
    EXPECT_TRUE(EqualSid(relative + header->Group, group.sid));
    EXPECT_EQ(std::memcmp(relative + header->Dacl, list, 100), 0);
    EXPECT_FAILS(MakeSelfRelativeSD(relative, relative, &room), ERROR_BAD_DESCRIPTOR_FORMAT);
    EXPECT_FAILS(SetSecurityDescriptorOwner(relative, nullptr, FALSE), ERROR_INVALID_SECURITY_DESCR);
}

TEST(Descriptor, WithoutListAllowsEverythingOrSaysNothing) {
    SECURITY_DESCRIPTOR descriptor;
    EXPECT_FALSE(InitializeSecurityDescriptor(&descriptor, 2));
    ASSERT_TRUE(InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION));
    BOOL present = TRUE;
    BOOL defaulted = 7;
    PACL acl = reinterpret_cast<PACL>(&descriptor);
    EXPECT_TRUE(GetSecurityDescriptorDacl(&descriptor, &present, &acl, &defaulted));
    EXPECT_FALSE(present);
    EXPECT_EQ(acl, reinterpret_cast<PACL>(&descriptor)) << "untouched";
    EXPECT_EQ(defaulted, 7);
    EXPECT_TRUE(SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE));
    EXPECT_TRUE(GetSecurityDescriptorDacl(&descriptor, &present, &acl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_EQ(acl, nullptr);
    EXPECT_EQ(GetSecurityDescriptorLength(&descriptor), 20U);
}

TEST(Descriptor, PartsThatDoNotFitAreRefused) {
    for (BYTE count = 1; count <= 8; ++count) {
        const Sid sid(count);
        EXPECT_EQ(GetLengthSid(sid.sid), 8U + 4 * count);
        EXPECT_FALSE(EqualSid(sid.sid, Sid(count, 77).sid));
        EXPECT_FALSE(EqualSid(sid.sid, Sid(static_cast<BYTE>(count % 8 + 1)).sid));
    }
    SID_IDENTIFIER_AUTHORITY authority = kWorld;
    PSID sid = nullptr;
    for (const BYTE count : {0, 9, 255})
        EXPECT_FAILS(AllocateAndInitializeSid(&authority, count, 1, 2, 3, 4, 5, 6, 7, 8, &sid), ERROR_INVALID_SID);

    const Sid everyone;
    alignas(DWORD) BYTE list[64];
    auto* acl = reinterpret_cast<PACL>(list);
    EXPECT_FAILS(InitializeAcl(acl, 7, ACL_REVISION), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_FALSE(InitializeAcl(acl, 64, 4));
    EXPECT_FALSE(InitializeAcl(acl, 0x10000, ACL_REVISION));
    ASSERT_TRUE(InitializeAcl(acl, 49, ACL_REVISION));
    EXPECT_EQ(acl->AclSize, 48);
    EXPECT_TRUE(AddAccessAllowedAce(acl, ACL_REVISION, 1, everyone.sid));
    EXPECT_FALSE(AddAccessAllowedAce(acl, ACL_REVISION + 1, 1, everyone.sid));
    EXPECT_TRUE(AddAccessAllowedAce(acl, ACL_REVISION, 2, everyone.sid));
    EXPECT_FAILS(AddAccessAllowedAce(acl, ACL_REVISION, 3, everyone.sid), ERROR_ALLOTTED_SPACE_EXCEEDED);
    EXPECT_EQ(acl->AceCount, 2);
    EXPECT_TRUE(IsValidAcl(acl));
    acl->AceCount = 3;
    LPVOID entry = nullptr;
    EXPECT_FALSE(IsValidAcl(acl));
    EXPECT_FALSE(GetAce(acl, 0, &entry));
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
                EXPECT_EQ(IsValidSid(place), whole) << length;
            } else {
                EXPECT_EQ(IsValidSecurityDescriptor(place), whole) << length;
                SECURITY_ATTRIBUTES attributes{sizeof attributes, place, FALSE};
                HANDLE event = CreateEventA(&attributes, TRUE, FALSE, ("Truncated " + std::to_string(length)).c_str());
                EXPECT_TRUE(event != nullptr || !whole);
                if (event != nullptr) CloseHandle(event);
            }
        }
}

TEST(HostileRecords, OddBytesAreReadWithoutAFault) {
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
    for (int round = 0; round < 2000; ++round) {
        std::memcpy(place, kEveryoneDescriptor.data(), kEveryoneDescriptor.size());
        for (unsigned changes = 1 + random() % 4; changes > 0; --changes)
            place[random() % kEveryoneDescriptor.size()] = static_cast<BYTE>(random());
        ReadEverything(place);
        ReadEverything(place + 20);
    }
    for (const AddressCase& row : memory.Kinds(sizeof(SECURITY_DESCRIPTOR)))
        ReadEverything(row.address);
}

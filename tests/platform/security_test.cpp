// Security identifiers, lists and descriptors; tokens, accounts, and security records as text.
#include "campaign.h"
#include "kit.h"
#include "memory_kit.h"

#include <sddl.h>

#include <cstring>

namespace {

using Bytes = std::vector<BYTE>;

// Revision 1, DACL present, self-relative; list at 20, no owner, group at 48.
const Bytes kEveryoneDescriptor = {
    1, 0, 0x04, 0x80, 0, 0, 0, 0, 48, 0, 0, 0, 0, 0, 0, 0, 20, 0, 0, 0,
    // The list: revision 2, 28 bytes, one entry: allowed, no flags, 20 bytes, GENERIC_ALL, S-1-1-0.
    2, 0, 28, 0, 1, 0, 0, 0, 0, 0, 20, 0, 0, 0, 0, 0x10, 1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0,
    // The group: S-1-1-0.
    1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};

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

std::string TextOf(PSID sid) {
    char* text = nullptr;
    EXPECT_TRUE(ConvertSidToStringSidA(sid, &text)) << GetLastError();
    const std::string result = text ? text : "";
    LocalFree(text);
    return result;
}

Bytes Information(HANDLE token, TOKEN_INFORMATION_CLASS informationClass) {
    DWORD size = 0;
    EXPECT_FAILS(GetTokenInformation(token, informationClass, nullptr, 0, &size), ERROR_INSUFFICIENT_BUFFER);
    Bytes block(size);
    EXPECT_FALSE(GetTokenInformation(token, informationClass, block.data(), size - 1, &size));
    EXPECT_TRUE(GetTokenInformation(token, informationClass, block.data(), size, &size)) << GetLastError();
    return block;
}

// The user, then the groups, each with a blank behind it.
std::string WhoIs(HANDLE token) {
    const Bytes user = Information(token, TokenUser);
    const Bytes block = Information(token, TokenGroups);
    std::string who = TextOf(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid) + " ";
    const auto* groups = reinterpret_cast<const TOKEN_GROUPS*>(block.data());
    for (DWORD i = 0; i < groups->GroupCount; ++i)
        who += TextOf(groups->Groups[i].Sid) + " ";
    return who;
}

std::string WhoAmI() {
    HANDLE token = nullptr;
    const DWORD error = ErrorOf([&] { return OpenThreadToken(GetCurrentThread(), TOKEN_READ, TRUE, &token); });
    return error == ERROR_NO_TOKEN ? "nobody else" : WhoIs(Owned(token));
}

HANDLE TokenOfProcess(unsigned id, DWORD access = TOKEN_QUERY | TOKEN_DUPLICATE) {
    HANDLE token = nullptr;
    OpenProcessToken(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, id), access, &token);
    return token;
}

} // namespace

// As the library builds the security of its objects.
TEST(Descriptor, OfEveryoneHasTheseBytes) {
    SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
    PSID everyone = nullptr;
    ASSERT_TRUE(AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 2, 3, 4, 5, 6, 7, 8, &everyone));
    SECURITY_DESCRIPTOR absolute;
    BOOL present = TRUE, defaulted = TRUE;
    PACL found = nullptr;
    EXPECT_TRUE(InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION));
    EXPECT_TRUE(GetSecurityDescriptorDacl(&absolute, &present, &found, &defaulted) && !present) << "says nothing";
    EXPECT_TRUE(SetSecurityDescriptorOwner(&absolute, nullptr, FALSE));
    EXPECT_TRUE(SetSecurityDescriptorGroup(&absolute, everyone, FALSE));
    alignas(DWORD) BYTE list[64];
    auto* acl = reinterpret_cast<PACL>(list);
    EXPECT_TRUE(InitializeAcl(acl, 8 + GetLengthSid(everyone) + 8, ACL_REVISION));
    EXPECT_TRUE(AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, everyone));
    EXPECT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, acl, FALSE));
    Bytes relative(GetSecurityDescriptorLength(&absolute));
    DWORD length = static_cast<DWORD>(relative.size());
    DWORD room = length - 1;
    EXPECT_FAILS(MakeSelfRelativeSD(&absolute, relative.data(), &room), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(MakeSelfRelativeSD(&absolute, relative.data(), &length));
    EXPECT_EQ(relative, kEveryoneDescriptor);

    ASSERT_TRUE(GetSecurityDescriptorDacl(relative.data(), &present, &found, &defaulted) && present && !defaulted);
    LPVOID entry = nullptr;
    ASSERT_TRUE(GetAce(found, 0, &entry));
    EXPECT_TRUE(EqualSid(&static_cast<ACCESS_ALLOWED_ACE*>(entry)->SidStart, everyone));
    EXPECT_FALSE(GetAce(found, 1, &entry));
    EXPECT_EQ(FreeSid(everyone), nullptr);
}

// Records that end where memory ends.
TEST(HostileRecords, TruncatedAtEveryLengthAreInvalid) {
    BadMemory memory;
    const auto check = [&](size_t from, size_t size, BOOL (*isValid)(PSID)) {
        for (size_t length = 0; length <= size; length += 4) {
            BYTE* place = memory.AtEnd(length);
            std::copy_n(kEveryoneDescriptor.begin() + static_cast<ptrdiff_t>(from), length, place);
            ReadEverything(place);
            EXPECT_EQ(isValid(place) != FALSE, length == size) << from << " " << length;
        }
    };
    check(0, 60, [](void* record) { return BOOL{GetSecurityDescriptorLength(record) == 60}; });
    check(20, 28, [](void* record) { return IsValidAcl(static_cast<PACL>(record)); });
    check(48, 12, [](void* record) { return BOOL{GetLengthSid(record) != 0}; });
}

TEST(HostileRecordsCampaign, OddBytesAreReadWithoutAFault) {
    BadMemory memory;
    const std::string good(kEveryoneDescriptor.begin(), kEveryoneDescriptor.end());
    BYTE* place = memory.AtEnd(good.size());
    const auto read = [&](const std::string& bytes) {
        std::memcpy(place, bytes.data(), bytes.size());
        for (const size_t at : {0, 20, 48})
            ReadEverything(place + at);
    };
    std::mt19937_64 random(Seed());
    for (int round = Rounds(2000, 200000); round > 0; --round)
        read(Damaged(good, random));
    for (const AddressCase& row : memory.Kinds(sizeof(SECURITY_DESCRIPTOR)))
        ReadEverything(row.address);
}

TEST_AS_ROOT(Tokens, OfOtherProcessesAreActedForByOneThread) {
    const std::string daemon = "S-1-22-1-1 S-1-22-2-1 S-1-22-2-7 S-1-1-0 S-1-5-11 S-1-5-32-545 ";
    const std::string own = WhoIs(TokenOfProcess(GetCurrentProcessId()));
    EXPECT_TRUE(own.starts_with("S-1-22-1-0 S-1-22-2-0 ")) << own;
    EXPECT_TRUE(own.ends_with("S-1-1-0 S-1-5-11 S-1-5-32-545 S-1-5-32-544 ")) << own;
    EXPECT_EQ(WhoAmI(), "nobody else");
    TestProcess cat = TestProcess::Program("/usr/bin/setpriv", {"--reuid=1", "--regid=1", "--groups=7", "/bin/cat"});
    cat.Tell("ready");
    ASSERT_EQ(cat.Hear(), "ready");
    const HANDLE token = TokenOfProcess(cat.Id());
    EXPECT_EQ(WhoIs(token), daemon);

    ASSERT_TRUE(ImpersonateLoggedOnUser(token)) << GetLastError();
    EXPECT_EQ(WhoAmI(), daemon);
    std::string another;
    OnAThread([&] { return another = WhoAmI(), 0; });
    EXPECT_EQ(another, "nobody else");
    HANDLE process = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &process));
    EXPECT_EQ(WhoIs(process), own);
    EXPECT_FAILS(ImpersonateLoggedOnUser(process), ERROR_ACCESS_DENIED); // the handle gives no right to do so
    EXPECT_EQ(WhoAmI(), daemon);
    EXPECT_TRUE(RevertToSelf());
    EXPECT_EQ(WhoAmI(), "nobody else");

    cat.Kill();
    EXPECT_EQ(TokenOfProcess(cat.Id()), nullptr);
    EXPECT_FAILS(TokenOfProcess(GetCurrentProcessId(), TOKEN_QUERY | 0x20), ERROR_ACCESS_DENIED); // to change it
}

TEST(Accounts, AreFoundBySidAndByName) {
    const struct {
        const char *account, *sid, *domain, *name; // the first is asked for
        int use = 0;                               // 0: there is none
    } rows[] = {
        {"root", "S-1-22-1-0", "Unix User", "root", SidTypeUser},
        {"Unix Group\\root", "S-1-22-2-0", "Unix Group", "root", SidTypeGroup},
        {"everyone", "S-1-1-0", "", "Everyone", SidTypeWellKnownGroup},
        {"BUILTIN\\Administrators", "S-1-5-32-544", "BUILTIN", "Administrators", SidTypeAlias},
        {"no such user", "S-1-22-1-54321", "", ""},
        {"Other\\root", "S-1-22-3-0", "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.account);
        const DWORD error = row.use ? ERROR_SUCCESS : ERROR_NONE_MAPPED;
        PSID sid = nullptr;
        ASSERT_TRUE(ConvertStringSidToSidA(row.sid, &sid));
        EXPECT_EQ(TextOf(sid), row.sid);
        char name[64] = "", domain[64] = "", otherDomain[64];
        BYTE found[68];
        DWORD nameSize = sizeof name, domainSize = sizeof domain, foundSize = sizeof found, otherSize = sizeof domain;
        SID_NAME_USE use = SidTypeUser;
        EXPECT_FAILS(LookupAccountNameA(nullptr, row.account, found, &foundSize, otherDomain, &otherSize, &use), error);
        EXPECT_FAILS(LookupAccountSidA(nullptr, sid, name, &nameSize, domain, &domainSize, &use), error);
        if (row.use) {
            EXPECT_EQ(name + std::string(" of ") + domain, row.name + std::string(" of ") + row.domain);
            EXPECT_EQ(use, row.use);
            EXPECT_TRUE(EqualSid(found, sid));
        }
        LocalFree(sid);
    }
}

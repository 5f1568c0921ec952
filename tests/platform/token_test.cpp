// Tokens, impersonation, accounts, and security records as text.
#include "win32_kit.h"

#include <gtest/gtest.h>
#include <sddl.h>
#include <windows.h>

#include <cstring>
#include <vector>

namespace {

std::string TextOf(PSID sid) {
    char* text = nullptr;
    EXPECT_TRUE(ConvertSidToStringSidA(sid, &text)) << GetLastError();
    const std::string result = text != nullptr ? text : "";
    LocalFree(text);
    return result;
}

std::vector<BYTE> Information(HANDLE token, TOKEN_INFORMATION_CLASS informationClass) {
    DWORD size = 0;
    EXPECT_FALSE(GetTokenInformation(token, informationClass, nullptr, 0, &size));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
    std::vector<BYTE> block(size);
    EXPECT_FALSE(GetTokenInformation(token, informationClass, block.data(), size - 1, &size));
    EXPECT_TRUE(GetTokenInformation(token, informationClass, block.data(), size, &size)) << GetLastError();
    return block;
}

// The user, then the groups, each with a blank behind it.
std::string WhoIs(HANDLE token) {
    const std::vector<BYTE> user = Information(token, TokenUser);
    const std::vector<BYTE> block = Information(token, TokenGroups);
    std::string who = TextOf(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid) + " ";
    const auto* groups = reinterpret_cast<const TOKEN_GROUPS*>(block.data());
    for (DWORD i = 0; i < groups->GroupCount; ++i)
        who += TextOf(groups->Groups[i].Sid) + " ";
    return who;
}

std::string WhoAmI() {
    HANDLE token = nullptr;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_READ, TRUE, &token)) {
        EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_TOKEN});
        return "nobody else";
    }
    const std::string who = WhoIs(token);
    CloseHandle(token);
    return who;
}

HANDLE TokenOfProcess(unsigned id, DWORD access = TOKEN_QUERY | TOKEN_DUPLICATE) {
    HANDLE token = nullptr;
    const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, id);
    OpenProcessToken(process, access, &token);
    const DWORD error = GetLastError();
    CloseHandle(process);
    SetLastError(error);
    return token;
}

std::string WhoIsAThread() {
    std::string who;
    const Owned thread = StartThread([&]() -> DWORD {
        who = WhoAmI();
        return 0;
    });
    EXPECT_EQ(Wait(thread), DWORD{WAIT_OBJECT_0});
    return who;
}

const std::string kDaemon = "S-1-22-1-1 S-1-22-2-1 S-1-22-2-7 S-1-1-0 S-1-5-11 S-1-5-32-545 ";

} // namespace

TEST_AS_ROOT(Tokens, OfOtherProcessesAreActedForByOneThread) {
    const std::string own = WhoIs(TokenOfProcess(GetCurrentProcessId()));
    EXPECT_TRUE(own.starts_with("S-1-22-1-0 S-1-22-2-0 ")) << own;
    EXPECT_TRUE(own.ends_with("S-1-1-0 S-1-5-11 S-1-5-32-545 S-1-5-32-544 ")) << own;
    EXPECT_EQ(WhoAmI(), "nobody else");
    TestProcess cat = TestProcess::Program("/usr/bin/setpriv", {"--reuid=1", "--regid=1", "--groups=7", "/bin/cat"});
    cat.Tell("ready");
    ASSERT_EQ(cat.Hear(), "ready");
    const HANDLE token = TokenOfProcess(cat.Id());
    EXPECT_EQ(WhoIs(token), kDaemon);

    ASSERT_TRUE(ImpersonateLoggedOnUser(token)) << GetLastError();
    EXPECT_EQ(WhoAmI(), kDaemon);
    EXPECT_EQ(WhoIsAThread(), "nobody else");
    HANDLE process = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &process));
    EXPECT_EQ(WhoIs(process), own);
    ASSERT_TRUE(ImpersonateLoggedOnUser(token)) << "once more, by way of itself";
    EXPECT_FAILS(ImpersonateLoggedOnUser(process), ERROR_ACCESS_DENIED); // the handle gives no right to do so
    EXPECT_EQ(WhoAmI(), kDaemon);
    EXPECT_TRUE(RevertToSelf());
    EXPECT_TRUE(RevertToSelf());
    EXPECT_EQ(WhoAmI(), "nobody else");
    EXPECT_EQ(RunProgram("/usr/bin/id", {"-u"}).output, "0\n");

    cat.Kill();
    EXPECT_EQ(TokenOfProcess(cat.Id()), nullptr);
    EXPECT_EQ(TokenOfProcess(GetCurrentProcessId(), TOKEN_QUERY | 0x20), nullptr); // a right to change it
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
}

// A list has at most 64 KiB, however long or short its text is.
TEST(Lists, OfLongTextsAreKeptWholeOrRefused) {
    const auto repeated = [](const std::string& entry, size_t length) {
        std::string text = "D:";
        while (text.size() < length)
            text += entry;
        return text;
    };
    PSECURITY_DESCRIPTOR list = nullptr;
    LPSTR again = nullptr;
    // 70 KB of long entries are a list of 41 KB,
    const std::string fits = repeated("(A;;GA;;;S-1-5-21-4000000001-4000000002-4000000003-4000000004)", 70000);
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(fits.c_str(), SDDL_REVISION_1, &list, nullptr));
    ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorA(list, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                                     &again, nullptr));
    EXPECT_EQ(again, fits);
    LocalFree(again);
    LocalFree(list);
    // and of short ones one of 117 KB, whose size would be cut to 51 KB.
    const std::string tooLong = repeated("(A;;GA;;;WD)", 70000);
    EXPECT_FALSE(
        ConvertStringSecurityDescriptorToSecurityDescriptorA(tooLong.c_str(), SDDL_REVISION_1, &list, nullptr));
    if (OnTheLayer()) {
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ACL});
    }
}

TEST(Accounts, AreFoundBySidAndByName) {
    NeedsTheLayer("the accounts of Linux");
    struct Row {
        const char* account; // asked for
        const char* sid;
        const char* domain;
        const char* name;
        int use; // 0: there is none
    };
    const Row kRows[] = {
        {"root", "S-1-22-1-0", "Unix User", "root", SidTypeUser},
        {"Unix Group\\root", "S-1-22-2-0", "Unix Group", "root", SidTypeGroup},
        {"everyone", "S-1-1-0", "", "Everyone", SidTypeWellKnownGroup},
        {"Creator Owner", "S-1-3-0", "", "CREATOR OWNER", SidTypeWellKnownGroup},
        {"BUILTIN\\Administrators", "S-1-5-32-544", "BUILTIN", "Administrators", SidTypeAlias},
        {"no such user", "S-1-22-1-54321", "", "", 0},
        {"Other\\root", "S-1-22-3-0", "", "", 0},
        {"", "S-1-22-1-0-0", "", "", 0},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.account);
        PSID sid = nullptr;
        ASSERT_TRUE(ConvertStringSidToSidA(row.sid, &sid));
        EXPECT_EQ(TextOf(sid), row.sid);
        char name[64] = "";
        char domain[64] = "";
        DWORD nameSize = sizeof name;
        DWORD domainSize = sizeof domain;
        SID_NAME_USE use = SidTypeUser;
        EXPECT_EQ(LookupAccountSidA(nullptr, sid, name, &nameSize, domain, &domainSize, &use) != FALSE, row.use != 0);
        BYTE found[68];
        DWORD foundSize = sizeof found;
        DWORD foundDomainSize = sizeof domain;
        const BOOL byName = LookupAccountNameA(nullptr, row.account, found, &foundSize, domain, &foundDomainSize, &use);
        EXPECT_EQ(byName != FALSE, row.use != 0);
        if (row.use == 0) {
            EXPECT_EQ(GetLastError(), DWORD{ERROR_NONE_MAPPED});
        } else {
            EXPECT_STREQ(name, row.name);
            EXPECT_STREQ(domain, row.domain);
            EXPECT_EQ(use, row.use);
            EXPECT_EQ(nameSize, strlen(row.name));
            EXPECT_TRUE(EqualSid(found, sid));
            nameSize = static_cast<DWORD>(strlen(row.name)); // without room for the NUL
            EXPECT_FALSE(LookupAccountSidA(nullptr, sid, name, &nameSize, domain, &domainSize, &use));
            EXPECT_EQ(GetLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
            EXPECT_EQ(nameSize, strlen(row.name) + 1);
        }
        LocalFree(sid);
    }
}

// The authority that lists give to users, and where it comes from.
#include "acting_as.h"
#include "campaign.h"
#include "memory_kit.h"

#include "values/user_authority.h"

#include <cstring>
#include <random>

namespace {

constexpr uint32_t kUse = 0x8;
constexpr uint32_t kAdminister = 0x4;
constexpr uint32_t kJobs = 0x10;
constexpr uint32_t kPrinterAll = 0xF000C;
constexpr uint32_t kJobAll = 0xF0030;
constexpr uint32_t kGenericAll = 0x10000000;
constexpr uint32_t kGenericExecute = 0x20000000;
constexpr uint8_t kInheritOnly = 0x8;

// Accounts that every machine has: user and group daemon; group lp.
constexpr uint32_t kDaemon = 1;
constexpr uint32_t kLp = 7;
constexpr uint32_t kNobodys = 54321; // no account has this number

// The library, without a service.
struct AttachedLibrary {
    struct SetUp {
        SetUp() { SetUpProduct(); }
    } setUp;
    Library library;
};

uint32_t AuthorityFrom(const Bytes& list) {
    return AclAuthority(list.data(), static_cast<uint32_t>(list.size()));
}

// The same as another user, on a thread that acts as that one.
uint32_t AuthorityAs(uint32_t user, uint32_t group, const std::vector<uint32_t>& groups, const Bytes& list) {
    uint32_t authority = 0xEEEEEEEE;
    TestThread thread([&] {
        if (ActAs(user, group, groups)) authority = AuthorityFrom(list);
    });
    WaitForSingleObject(thread.Handle(), INFINITE);
    return authority;
}

Entry Allow(const Bytes& sid, uint32_t mask, uint8_t flags = 0) {
    return {0, mask, sid, flags};
}

Entry Deny(const Bytes& sid, uint32_t mask) {
    return {1, mask, sid};
}

} // namespace

TEST_AS_ROOT(Authority, OfListsForUsersAndGroups) {
    const AttachedLibrary library;
    const Bytes user = UserSid(kDaemon);
    const Bytes group = GroupSid(kDaemon);
    const Bytes second = GroupSid(kLp);
    struct Row {
        const char* what;
        std::vector<Entry> list;
        uint32_t daemon;      // user daemon of the groups daemon and lp
        uint32_t daemonOnNt4; // the same
        uint32_t root;
    };
    const Row kRows[] = {
        {"no entry", {}, 0, 0, 0},
        {"everyone prints", {Allow(kEveryone, kUse)}, 9, 9, 9},
        {"and owners manage theirs", {Allow(kEveryone, kUse), Allow(kCreatorOwner, kJobs)}, 11, 11, 11},
        {"owners alone", {Allow(kCreatorOwner, kJobs)}, 2, 2, 2},
        {"owners, generic", {Allow(kCreatorOwner, kGenericAll)}, 2, 2, 2},
        {"owners do not print", {Allow(kCreatorOwner, kUse)}, 0, 0, 0},
        {"group, everything of printer and jobs", {Allow(second, kPrinterAll), Allow(second, kJobAll)}, 31, 31, 0},
        {"group, everything of the printer", {Allow(second, kPrinterAll)}, 9, 25, 0},
        {"group, everything of jobs", {Allow(second, kJobAll)}, 14, 30, 0},
        {"user, everything", {Allow(user, kPrinterAll | kJobAll)}, 31, 31, 0},
        {"spread over user and groups", {Allow(user, 4), Allow(group, 8), Allow(second, 16)}, 31, 15, 0},
        {"administers without the jobs", {Allow(user, kUse | kAdminister)}, 9, 9, 0},
        {"administers without printing", {Allow(user, kJobs | kAdminister)}, 14, 14, 0},
        {"manages jobs", {Allow(user, kJobs)}, 14, 14, 0},
        {"generic all", {Allow(user, kGenericAll)}, 14, 14, 0},
        {"generic all and the standard rights", {Allow(user, kGenericAll | 0xF0000)}, 30, 30, 0},
        {"generic execute is not printing", {Allow(user, kGenericExecute)}, 0, 0, 0},
        {"generic execute asks for the standard rights", {Allow(user, kGenericExecute | 0x1C)}, 15, 15, 0},
        {"and finds them", {Allow(user, kGenericExecute | 0xF001C)}, 31, 31, 0},
        {"three of four standard rights", {Allow(user, 0x7001C)}, 31, 15, 0},
        {"deny after", {Allow(kEveryone, kUse), Deny(user, kUse)}, 0, 0, 9},
        {"deny before", {Deny(group, kUse), Allow(kEveryone, kUse)}, 0, 0, 9},
        {"deny of everyone", {Allow(user, kUse | kJobs), Deny(kEveryone, kUse)}, 14, 14, 0},
        {"deny of one bit keeps the others", {Allow(user, 0xF003C), Deny(second, kAdminister)}, 15, 31, 0},
        {"deny of a right of jobs", {Allow(user, 0xF003C), Deny(user, kJobs)}, 9, 25, 0},
        {"deny of another group", {Allow(kEveryone, kUse), Deny(GroupSid(2), kUse)}, 9, 9, 9},
        {"deny of owners", {Allow(kEveryone, kUse), Allow(kCreatorOwner, kJobs), Deny(kCreatorOwner, kJobs)}, 9, 9, 9},
        {"a user denied is an owner still", {Allow(kCreatorOwner, kJobs), Deny(user, 0xFFFFFFFF)}, 2, 2, 2},
        {"inherit-only counts", {Allow(kEveryone, kUse, kInheritOnly), Allow(kCreatorOwner, kJobs, 0x9)}, 11, 11, 11},
        {"administrators", {Allow(kAdministrators, kPrinterAll | kJobAll), Allow(kEveryone, kUse)}, 9, 9, 31},
        {"root's user and group", {Allow(UserSid(0), kUse), Allow(GroupSid(0), kJobs)}, 0, 0, 15},
        {"a user's number is no group's", {Allow(GroupSid(99), kUse), Allow(UserSid(kLp), kUse)}, 0, 0, 0},
        {"authenticated users", {Allow(Sid(5, {11}), kUse)}, 9, 9, 9},
        {"users", {Allow(Sid(5, {32, 545}), kUse)}, 9, 9, 9},
        {"accounts that nobody knows", {Allow(Sid(5, {21, 1, 2, 3, 500}), ~0u), Allow(Sid(1, {}), ~0u)}, 0, 0, 0},
        {"longer than everyone", {Allow(Sid(1, {0, 0}), kUse)}, 0, 0, 0},
        {"other kinds of entries", {{2, ~0u, user}, {17, ~0u, kEveryone}}, 0, 0, 0},
    };
    static_assert(std::size(kRows) >= 30);
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.what);
        const Bytes list = List(row.list);
        UseSetting("ORIEL_WINDOWS_VERSION", "5.1.2600");
        EXPECT_EQ(AuthorityAs(kDaemon, kDaemon, {kLp}, list), row.daemon);
        EXPECT_EQ(AuthorityFrom(list), row.root);
        UseSetting("ORIEL_WINDOWS_VERSION", "4.0.1381");
        EXPECT_EQ(AuthorityAs(kDaemon, kDaemon, {kLp}, list), row.daemonOnNt4);
    }
}

TEST_AS_ROOT(Authority, AnAccountThatWasDeletedGivesAndTakesNothing) {
    const AttachedLibrary library;
    const auto asNobody = [](const std::vector<Entry>& list) {
        return AuthorityAs(kNobodys, kDaemon, {kNobodys + 1}, List(list));
    };
    EXPECT_EQ(asNobody({Allow(UserSid(kNobodys), ~0u), Allow(GroupSid(kNobodys + 1), ~0u)}), 0u);
    EXPECT_EQ(asNobody({Allow(kEveryone, kUse), Deny(UserSid(kNobodys), kUse), Deny(GroupSid(kNobodys + 1), kUse)}),
              9u);
    EXPECT_EQ(asNobody({Allow(GroupSid(kDaemon), kUse)}), 9u); // which has an account
}

TEST(Authority, OfAListThatIsCutOrLiesIsNone) {
    const AttachedLibrary library;
    const Bytes whole = List({Allow(kEveryone, 0xF003C), Deny(kAdministrators, 1), Allow(kCreatorOwner, kJobs)});
    ASSERT_EQ(AuthorityFrom(whole), 31u);
    BadMemory memory;
    for (uint32_t length = 0; length < whole.size(); ++length) {
        BYTE* place = memory.AtEnd(length & ~3u); // where reading beyond it would be a fault
        std::memcpy(place, whole.data(), length & ~3u);
        EXPECT_EQ(AclAuthority(place, length & ~3u), 0u) << length;
        Bytes padded(whole.begin(), whole.begin() + length);
        padded.resize(whole.size() + 64);
        EXPECT_EQ(AclAuthority(padded.data(), length), 0u) << length;
        // Only the header says so: what is behind the cut is not looked at.
        Bytes shortened = whole;
        shortened[2] = static_cast<uint8_t>(length);
        EXPECT_EQ(AuthorityFrom(shortened), 0u) << length;
    }
    struct Change {
        size_t at;
        uint8_t value;
        uint32_t authority;
    };
    const Change kChanges[] = {
        {0, 0, 0},  {0, 1, 0},  {0, 5, 0},   {0, 4, 31},   {2, 252, 0}, {3, 1, 0},    // revision, size
        {4, 4, 0},  {5, 1, 0},  {4, 1, 31},  {4, 0, 0},                               // count
        {10, 0, 0}, {10, 3, 0}, {10, 8, 0},  {10, 16, 0},  {10, 22, 0}, {10, 252, 0}, // an entry's size
        {16, 2, 0}, {17, 2, 0}, {17, 15, 0}, {17, 255, 0}, {17, 0, 2},  {8, 9, 2},    // its SID, its type
    };
    for (const Change& change : kChanges) {
        Bytes list = whole;
        list[change.at] = change.value;
        EXPECT_EQ(AuthorityFrom(list), change.authority) << change.at << " " << int(change.value);
    }
}

// A list begins with what gives printing and takes everything else; whatever comes behind cannot give more.
TEST(Authority, OfChangedListsNeverExceedsTheirIntactBeginningCampaign) {
    const AttachedLibrary library;
    std::vector<Entry> entries = {Allow(kEveryone, kUse), Deny(kEveryone, ~kUse), Deny(kCreatorOwner, ~0u)};
    const size_t intact = List(entries).size();
    const std::vector<Entry> generous = {Allow(kEveryone, ~0u), Allow(kCreatorOwner, ~0u), Allow(UserSid(0), ~0u)};
    while (entries.size() < 40)
        entries.insert(entries.end(), generous.begin(), generous.end());
    const Bytes original = List(entries);
    ASSERT_EQ(AuthorityFrom(original), 9u);
    BadMemory memory;
    BYTE* list = memory.AtEnd(original.size());
    std::mt19937_64 random(Seed());
    const int rounds = Rounds(5000, 100000);
    int valid = 0;
    for (int round = 0; round < rounds; ++round) {
        std::memcpy(list, original.data(), original.size());
        for (uint64_t changes = 1 + random() % 4; changes > 0; --changes) {
            const size_t at = random() % 8 == 0 ? random() % 8 : intact + random() % (original.size() - intact);
            list[at] = static_cast<BYTE>(random());
        }
        const uint32_t authority = AclAuthority(list, static_cast<uint32_t>(original.size()));
        ASSERT_EQ(authority & ~9u, 0u) << round;
        valid += authority == 9;
    }
    EXPECT_GT(valid, rounds / 10);
    EXPECT_LT(valid, rounds);
}

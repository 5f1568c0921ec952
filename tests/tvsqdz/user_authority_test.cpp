// The authority that lists give to users, where it comes from, and when its watcher tells.
#include "acting_user.h"
#include "memory_kit.h"
#include "notification_kit.h"

#include "values/user_authority.h"

#include <cstring>

namespace {

// S-1-AUTHORITY-SUB-SUB...
Bytes Sid(uint8_t authority, const std::vector<uint32_t>& subAuthorities) {
    Bytes sid = {1, static_cast<uint8_t>(subAuthorities.size()), 0, 0, 0, 0, 0, authority};
    for (const uint32_t subAuthority : subAuthorities)
        sid = Joined({sid, Number(subAuthority)});
    return sid;
}
Bytes UserSid(uint32_t user) {
    return Sid(22, {1, user});
}
Bytes GroupSid(uint32_t group) {
    return Sid(22, {2, group});
}
const Bytes kEveryone = Sid(1, {0});
const Bytes kCreatorOwner = Sid(3, {0});
const Bytes kAdministrators = Sid(5, {32, 544});

struct Entry {
    uint8_t type; // 0 allows, 1 denies
    uint32_t mask;
    Bytes sid;
    uint8_t flags = 0;
};
// An ACL in the Windows form.
Bytes List(const std::vector<Entry>& entries) {
    Bytes list = {2, 0, 0, 0, static_cast<uint8_t>(entries.size()), static_cast<uint8_t>(entries.size() >> 8), 0, 0};
    for (const Entry& entry : entries) {
        const auto size = static_cast<uint8_t>(8 + entry.sid.size());
        list = Joined({list, {entry.type, entry.flags, size, 0}, Number(entry.mask), entry.sid});
    }
    const auto size = static_cast<uint16_t>(list.size());
    std::memcpy(&list[2], &size, sizeof size);
    return list;
}

constexpr uint32_t kUse = 0x8;
constexpr uint32_t kAdminister = 0x4;
constexpr uint32_t kJobs = 0x10;
constexpr uint32_t kPrinterAll = 0xF000C;
constexpr uint32_t kJobAll = 0xF0030;
constexpr uint32_t kGenericAll = 0x10000000;

// Accounts that every machine has: user and group daemon; group lp.
constexpr uint32_t kDaemon = 1;
constexpr uint32_t kLp = 7;
constexpr uint32_t kNobodys = 54321; // no account has this number

uint32_t AuthorityFrom(const Bytes& list) {
    return AclAuthority(list.data(), static_cast<uint32_t>(list.size()));
}

// The same as another user, on a thread that acts as that one.
uint32_t AuthorityAs(uint32_t user, uint32_t group, const std::vector<uint32_t>& groups, const Bytes& list) {
    uint32_t authority = 0xEEEEEEEE;
    TestThread([&] {
        if (ActAs(user, group, groups)) authority = AuthorityFrom(list);
    });
    return authority;
}

Entry Allow(const Bytes& sid, uint32_t mask, uint8_t flags = 0) {
    return {0, mask, sid, flags};
}

Entry Deny(const Bytes& sid, uint32_t mask) {
    return {1, mask, sid};
}

const Bytes kPrinting = List({Allow(kEveryone, kUse)});

struct UserAuthority : Opened {
    void StorePort(uint32_t kind) { StoreBytes(database, "Port", BytesOfRecord(TvsPortRecord{.portKind = kind})); }
};

} // namespace

TEST_AS_ROOT(Authority, OfListsForUsersAndGroups) {
    SetUpProduct();
    const Library library;
    const Bytes user = UserSid(kDaemon);
    const Bytes group = GroupSid(kDaemon);
    const Bytes second = GroupSid(kLp);
    // daemon: user daemon of the groups daemon and lp; on Windows NT 4 too.
    const std::tuple<const char*, std::vector<Entry>, uint32_t, uint32_t, uint32_t> rows[] = {
        {"everyone prints", {Allow(kEveryone, kUse)}, 9, 9, 9},
        {"and owners manage theirs", {Allow(kEveryone, kUse), Allow(kCreatorOwner, kJobs)}, 11, 11, 11},
        {"owners, generic", {Allow(kCreatorOwner, kGenericAll)}, 2, 2, 2},
        {"owners do not print", {Allow(kCreatorOwner, kUse)}, 0, 0, 0},
        {"group, everything of printer and jobs", {Allow(second, kPrinterAll), Allow(second, kJobAll)}, 31, 31, 0},
        {"group, everything of jobs", {Allow(second, kJobAll)}, 14, 30, 0},
        {"spread over user and groups", {Allow(user, 4), Allow(group, 8), Allow(second, 16)}, 31, 15, 0},
        {"administers without printing", {Allow(user, kJobs | kAdminister)}, 14, 14, 0},
        {"generic all and the standard rights", {Allow(user, kGenericAll | 0xF0000)}, 30, 30, 0},
        {"generic execute asks for the standard rights", {Allow(user, 0x20000000 | 0x1C)}, 15, 15, 0},
        {"three of four standard rights", {Allow(user, 0x7001C)}, 31, 15, 0},
        {"deny after", {Allow(kEveryone, kUse), Deny(user, kUse)}, 0, 0, 9},
        {"deny of one bit keeps the others", {Allow(user, 0xF003C), Deny(second, kAdminister)}, 15, 31, 0},
        {"inherit-only counts", {Allow(kEveryone, kUse, 0x8), Allow(kCreatorOwner, kJobs, 0x9)}, 11, 11, 11},
        {"administrators", {Allow(kAdministrators, kPrinterAll | kJobAll), Allow(kEveryone, kUse)}, 9, 9, 31},
        {"root's user and group", {Allow(UserSid(0), kUse), Allow(GroupSid(0), kJobs)}, 0, 0, 15},
        {"a user's number is no group's", {Allow(GroupSid(99), kUse), Allow(UserSid(kLp), kUse)}, 0, 0, 0},
        {"accounts that nobody knows", {Allow(Sid(5, {21, 1, 2, 3, 500}), ~0u), Allow(Sid(1, {}), ~0u)}, 0, 0, 0},
        {"other kinds of entries", {Allow(kEveryone, kUse), {2, ~0u, user}, {17, ~0u, kEveryone}}, 9, 9, 9},
    };
    for (const auto& [what, entries, daemon, daemonOnNt4, root] : rows) {
        SCOPED_TRACE(what);
        const Bytes list = List(entries);
        UseSetting("ORIEL_WINDOWS_VERSION", "5.1.2600");
        EXPECT_EQ(AuthorityAs(kDaemon, kDaemon, {kLp}, list), daemon);
        EXPECT_EQ(AuthorityFrom(list), root);
        UseSetting("ORIEL_WINDOWS_VERSION", "4.0.1381");
        EXPECT_EQ(AuthorityAs(kDaemon, kDaemon, {kLp}, list), daemonOnNt4);
    }
}

TEST_AS_ROOT(Authority, AnAccountThatWasDeletedGivesAndTakesNothing) {
    SetUpProduct();
    const Library library;
    const auto asNobody = [](const std::vector<Entry>& list) {
        return AuthorityAs(kNobodys, kDaemon, {kNobodys + 1}, List(list));
    };
    EXPECT_EQ(asNobody({Allow(UserSid(kNobodys), ~0u), Allow(GroupSid(kNobodys + 1), ~0u)}), 0u);
    EXPECT_EQ(asNobody({Allow(kEveryone, kUse), Deny(UserSid(kNobodys), kUse), Deny(GroupSid(kNobodys + 1), kUse)}),
              9u);
    EXPECT_EQ(asNobody({Allow(GroupSid(kDaemon), kUse)}), 9u); // which has an account
}

TEST(Authority, OfAListThatIsCutOrLiesIsNone) {
    SetUpProduct();
    const Library library;
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
    }
    const std::tuple<size_t, uint8_t, uint32_t> changes[] = {
        {0, 1, 0},  {0, 5, 0},  {0, 4, 31},   {2, 252, 0}, {3, 1, 0},  {4, 4, 0},    {5, 1, 0},  {4, 1, 31},
        {10, 0, 0}, {10, 8, 0}, {10, 252, 0}, {16, 2, 0},  {17, 2, 0}, {17, 255, 0}, {17, 0, 2}, {8, 9, 2},
    };
    for (const auto& [at, value, authority] : changes) {
        Bytes list = whole;
        list[at] = value;
        EXPECT_EQ(AuthorityFrom(list), authority) << at << " " << int(value);
    }
}

TEST_F(UserAuthority, ComesFromThePortThePlatformTheKindsOrTheList) {
    const TvsManager monitor = OpenPrinter(2, kPrinter, kPowerfulUser);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 0u) << "the first list is none";
    EXPECT_EQ(NumberOf(monitor, "UserAuthority"), 31u);
    EXPECT_EQ(Update(manager, "AccessControlList", {}), TVS_OK);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 0u);

    constexpr const char* kXp = "5.1.2600";
    constexpr uint32_t kStored = 0x1234;
    const std::tuple<uint32_t, const char*, uint32_t, uint32_t> rows[] = {
        {8, kXp, kStored, kStored},
        {0, "9x:4.10", 31, 31},
        {0x18, kXp, 9, 31},
    };
    EXPECT_EQ(Update(manager, "AccessControlList", kPrinting), TVS_OK);
    EXPECT_EQ(Update(manager, "UserAuthority", Number(kStored)), TVS_OK);
    for (const auto& [portKind, version, authority, monitors] : rows) {
        SCOPED_TRACE(portKind);
        StorePort(portKind);
        UseSetting("ORIEL_WINDOWS_VERSION", version);
        EXPECT_EQ(NumberOf(manager, "UserAuthority"), authority);
        EXPECT_EQ(NumberOf(monitor, "UserAuthority"), monitors);
    }
    EXPECT_EQ(Read(manager, "UserAuthority", 0).returnedSize, 4u);
    KillService();
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 1u) << "the list cannot be read";
    service = Service();
    // In a process that has opened a manager of a kind that polls: whoever asks, and wherever.
    const TvsManager polling = OpenPrinter(12);
    ASSERT_EQ(Update(polling, "AccessControlList", kPrinting), TVS_OK);
    EXPECT_EQ(NumberOf(polling, "UserAuthority"), 11u);
    EXPECT_EQ(NumberOf(monitor, "UserAuthority"), 11u);
    UseSetting("ORIEL_WINDOWS_VERSION", "9x:4.10");
    EXPECT_EQ(NumberOf(polling, "UserAuthority"), 11u);
}

TEST_F(UserAuthority, OfTheLongestListIsThatOfItsEntries) {
    std::vector<Entry> entries(3276, {0, 0, kCreatorOwner}); // 65,528 bytes
    entries.front() = {0, 0x8, kEveryone};
    entries.back() = {0, 0x10, kEveryone};
    Bytes list = List(entries);
    list.resize(65535, 0xFF); // with a tail that is in no entry
    ASSERT_EQ(Update(manager, "AccessControlList", list), TVS_OK);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 15u);
}

// The thread's first call of the service comes while it impersonates: the service must take it for the process's.
TEST_F(UserAuthority, IsThatOfWhomTheThreadImpersonatesAsRoot) {
    ASSERT_EQ(Update(manager, "AccessControlList",
                     List({Allow(UserSid(1), kUse), Allow(GroupSid(7), kJobs), Allow(kAdministrators, 0xF003C)})),
              TVS_OK);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 31u);
    TestThread([&] {
        ASSERT_TRUE(ActAs(1, 1, {7}));
        EXPECT_EQ(NumberOf(manager, "UserAuthority"), 15u);
    });
}

TEST_F(UserAuthority, WatcherTellsAnotherAuthorityAndNotAnotherList) {
    ASSERT_EQ(Update(manager, "AccessControlList", kPrinting), TVS_OK);
    std::optional<Registrant> registrant(std::in_place, Form::Event, manager, "UserAuthority");
    const auto update = [&](const char* variable, const Bytes& value, bool tells) {
        EXPECT_EQ(Update(manager, variable, value), TVS_OK);
        EXPECT_EQ(registrant->Told(tells ? 10000 : kQuietMs), tells);
    };
    update("AccessControlList", List({Allow(kEveryone, kUse), Allow(kCreatorOwner, kJobs)}), true);
    update("AccessControlList", List({Allow(kEveryone, kUse), Allow(kCreatorOwner, kJobs | kAdminister)}), false);
    update("UserAuthority", Number(77), false);
    update("AccessControlList", {}, true); // none
    update("AccessControlList", {1, 2, 3, 4, 5, 6, 7, 8}, false);
    // At a port without requests what is stored is told, and the list is nothing.
    StorePort(0x18); // the bit, and not the kind
    registrant.emplace(Form::Event, manager, "UserAuthority");
    update("UserAuthority", Number(5), true);
    update("AccessControlList", kPrinting, false);
}

// What a read of "UserAuthority" gives, and when its watcher tells.
#include "acting_as.h"
#include "notification_kit.h"

#include "product/client.h"

#include <cstring>

namespace {

const Bytes kPrinting = List({{0, 0x8, kEveryone}});
const Bytes kPrintingAndOwnJobs = List({{0, 0x8, kEveryone}, {0, 0x10, kCreatorOwner}});
const Bytes kEverything = List({{0, 0xF003C, kEveryone}});

void StorePort(TvsManager manager, uint32_t kind) {
    TvsPortRecord port = {};
    port.portKind = kind;
    ASSERT_EQ(WriteVariable(RecordOf(manager)->printerDatabase, "Port", &port, sizeof port), Answer::Done);
}

constexpr const char* kXp = "5.1.2600";

void SetVersion(const char* version) {
    if (OnTheLayer()) UseSetting("ORIEL_WINDOWS_VERSION", version); // Windows is one with lists all the same
}

} // namespace

TEST(UserAuthority, ComesFromThePortThePlatformTheKindsOrTheList) {
    Product product;
    const TvsManager manager = OpenPrinter();
    TvsManager monitor = 0;
    ASSERT_EQ(OpenManagerExA(kPrinter.c_str(), "\\\\.\\kptmon", 2, &monitor), TVS_OK);

    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 0u) << "the first list is none";
    EXPECT_EQ(NumberOf(monitor, "UserAuthority"), 31u);
    EXPECT_EQ(Update(manager, "AccessControlList", {}), TVS_OK);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 0u);

    struct Row {
        uint32_t portKind;
        const char* version;
        uint32_t authority;
        uint32_t monitors;
        uint32_t withPolling; // in a process that has opened a manager of that kind
    };
    constexpr uint32_t kStored = 0x1234;
    const Row kRows[] = {
        {0, kXp, 9, 31, 11},
        {0x18, kXp, 9, 31, 11},
        {8, kXp, kStored, kStored, kStored},
        {0, "9x:4.10", 31, 31, 11},
        {8, "9x:4.10", kStored, kStored, kStored},
    };
    EXPECT_EQ(Update(manager, "AccessControlList", kPrinting), TVS_OK);
    EXPECT_EQ(Update(manager, "UserAuthority", Number(kStored)), TVS_OK);
    const auto check = [&](bool polling) {
        for (const Row& row : kRows) {
            if (row.version != kXp && !OnTheLayer()) continue;
            SCOPED_TRACE(row.portKind);
            SCOPED_TRACE(row.version);
            StorePort(manager, row.portKind);
            SetVersion(row.version);
            EXPECT_EQ(NumberOf(manager, "UserAuthority"), polling ? row.withPolling : row.authority);
            EXPECT_EQ(NumberOf(monitor, "UserAuthority"), polling ? row.withPolling : row.monitors);
        }
        StorePort(manager, 0);
        SetVersion(kXp);
    };
    check(false);
    const ReadResult size = Read(manager, "UserAuthority", 0);
    EXPECT_EQ(size.status, TVS_E_SIZE);
    EXPECT_EQ(size.returnedSize, 4u);

    product.service.process.Kill();
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 1u) << "the list cannot be read";
    product.service = Service();
    const TvsManager polling = OpenPrinter(12);
    ASSERT_EQ(Update(polling, "AccessControlList", kPrinting), TVS_OK);
    EXPECT_EQ(NumberOf(polling, "UserAuthority"), 11u);
}

TEST(UserAuthority, OfTheLongestListIsThatOfItsEntries) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    std::vector<Entry> entries(2700, {0, 0x8, kEveryone}); // 54,008 bytes
    entries.resize(3276, {0, 0, kCreatorOwner});           // 65,528
    entries.back() = {1, 0x4, kEveryone};
    Bytes list = List(entries);
    list.resize(65535, 0xFF); // with a tail that is in no entry
    ASSERT_EQ(Update(manager, "AccessControlList", list), TVS_OK);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 9u);
    list[list.size() - 13] ^= 0x10; // in the last entry's SID
    list[2] = 0xFC;                 // and a size that takes in a part of the tail
    ASSERT_EQ(Update(manager, "AccessControlList", list), TVS_OK);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 9u);
    list[3] = 0xFF;
    list[2] = 0xFF; // more than an ACL may be
    ASSERT_EQ(Update(manager, "AccessControlList", list), TVS_OK);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 0u);
}

// The thread's first call of the service comes while it impersonates: the service must take it for the process's.
TEST_AS_ROOT(UserAuthority, IsThatOfWhomTheThreadImpersonates) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    ASSERT_EQ(Update(manager, "AccessControlList",
                     List({{0, 0x8, UserSid(1)}, {0, 0x10, GroupSid(7)}, {0, 0xF003C, kAdministrators}})),
              TVS_OK);
    EXPECT_EQ(NumberOf(manager, "UserAuthority"), 31u);
    {
        TestThread natively([&] {
            ASSERT_TRUE(ActAs(1, 1, {7}));
            EXPECT_EQ(NumberOf(manager, "UserAuthority"), 15u);
        });
    }
    TestProcess other =
        TestProcess::Program("/usr/bin/setpriv", {"--reuid=1", "--regid=1", "--clear-groups", "/bin/cat"});
    other.Tell("ready");
    EXPECT_EQ(other.Hear(), "ready"); // it is cat by now
    TestThread byToken([&] {
        HANDLE token = nullptr;
        const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, other.Id());
        ASSERT_TRUE(OpenProcessToken(process, TOKEN_QUERY | TOKEN_DUPLICATE, &token)) << GetLastError();
        ASSERT_TRUE(ImpersonateLoggedOnUser(token)) << GetLastError();
        EXPECT_EQ(NumberOf(manager, "UserAuthority"), 9u);
        EXPECT_TRUE(RevertToSelf());
        EXPECT_EQ(NumberOf(manager, "UserAuthority"), 31u);
        CloseHandle(token);
        CloseHandle(process);
    });
}

TEST(UserAuthority, WatcherTellsAnotherAuthorityAndNotAnotherList) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    ASSERT_EQ(Update(manager, "AccessControlList", kPrinting), TVS_OK);
    Registrant byEvent(Form::Event, manager, "UserAuthority");
    Registrant byMessage(Form::Message, manager, "UserAuthority");
    const auto told = [&](const Bytes& list) {
        EXPECT_EQ(Update(manager, "AccessControlList", list), TVS_OK);
        EXPECT_EQ(byEvent.Told(), 1);
        EXPECT_EQ(byMessage.Told(), 1);
    };
    const auto notTold = [&](const char* variable, const Bytes& value) {
        EXPECT_EQ(Update(manager, variable, value), TVS_OK);
        EXPECT_EQ(byEvent.Told(kQuietMs) + byMessage.Told(kQuietMs), 0);
    };
    told(kPrintingAndOwnJobs);
    notTold("AccessControlList", List({{0, 0x8, kEveryone}, {0, 0x10, kCreatorOwner}, {0, 4, kCreatorOwner}}));
    notTold("UserAuthority", Number(77));
    told(kEverything);
    told({}); // none
    notTold("AccessControlList", {1, 2, 3, 4, 5, 6, 7, 8});
    told(kPrinting);
    for (int i = 0; i < 200; ++i) // many in a row: the last one counts
        ASSERT_EQ(Update(manager, "AccessControlList", i % 2 == 0 ? kEverything : kPrinting), TVS_OK);
    ASSERT_EQ(Update(manager, "AccessControlList", kPrintingAndOwnJobs), TVS_OK);
    EXPECT_GT(byEvent.Told(), 0);
    while (byEvent.Told(kQuietMs) > 0) {
    }
    EXPECT_EQ(Update(manager, "AccessControlList", kPrinting), TVS_OK); // and is what was told last
    EXPECT_EQ(byEvent.Told(), 1);
}

TEST(UserAuthority, WatcherOfAPortWithoutRequestsTellsWhatIsStored) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    StorePort(manager, 0x18); // the bit, and not the kind
    Registrant registrant(Form::Event, manager, "UserAuthority");
    EXPECT_EQ(Update(manager, "UserAuthority", Number(5)), TVS_OK);
    EXPECT_EQ(registrant.Told(), 1);
    EXPECT_EQ(Update(manager, "AccessControlList", kPrinting), TVS_OK);
    EXPECT_EQ(registrant.Told(kQuietMs), 0);
}

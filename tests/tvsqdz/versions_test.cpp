// What the library makes of each Windows: the platform bit, Terminal Services, and with it the names of kernel objects.
#include "machine.h"
#include "machine/objects.h"

// Windows 95/98/Me has no security: objects get the platform's default, and the open works all the same.
TEST(Versions, EachHasItsBitItsNamesAndItsSecurity) {
    struct Row {
        const char* version;
        Bytes suite; // "ProductSuite"; empty: none
        DWORD suiteType;
        uint32_t bit;
        bool terminalServer;
    };
    const Bytes business = Joined({BytesOf("Small Business"), BytesOf("")});
    const Bytes listed = Joined({BytesOf("Small Business"), BytesOf("Terminal Server"), BytesOf("")});
    const Row rows[] = {
        {"9x:4.0", {}, REG_MULTI_SZ, OsWindows9x, false},
        {"9x:4.10", listed, REG_MULTI_SZ, OsWindows9x, true},
        {"3.10", {}, REG_MULTI_SZ, 0, false},
        {"3.50", {}, REG_MULTI_SZ, OsNt350, false},
        {"3.51", {}, REG_MULTI_SZ, OsNt351, false},
        {"3.52", {}, REG_MULTI_SZ, OsNtLater, false},
        {"4.0", {}, REG_MULTI_SZ, OsNtLater, false},
        {"4.0", listed, REG_MULTI_SZ, OsNtLater, true},
        {"5.0", {}, REG_MULTI_SZ, OsNtLater, false},
        {"5.0", listed, REG_MULTI_SZ, OsNtLater, true},
        {"5.0", Text("Terminal Server"), REG_MULTI_SZ, OsNtLater, true}, // stored without its NULs
        {"5.0", listed, REG_BINARY, OsNtLater, false},
        {"5.0", BytesOf("Terminal Server"), REG_SZ, OsNtLater, false},
        {"5.0", BytesOf("terminal server"), REG_MULTI_SZ, OsNtLater, false},
        {"5.0", BytesOf("Terminal Server 2"), REG_MULTI_SZ, OsNtLater, false},
        {"5.0", Joined({{0}, listed}), REG_MULTI_SZ, OsNtLater, false}, // the list ends first
        {"5.0", business, REG_MULTI_SZ, OsNtLater, false},
        {"5.1", {}, REG_MULTI_SZ, OsNtLater, true},
        {"5.2", business, REG_MULTI_SZ, OsNtLater, true},
        {"6.1", {}, REG_MULTI_SZ, OsNtLater, true},
    };
    SetUpProduct();
    const Service service;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.version);
        UseSetting("ORIEL_WINDOWS_VERSION", row.version);
        SetRegistryValue("System\\CurrentControlSet\\Control\\ProductOptions", "ProductSuite", row.suiteType,
                         row.suite);
        const Library library;
        EXPECT_EQ(PlatformBit(), row.bit);
        EXPECT_EQ(g_terminalServer, row.terminalServer);
        const std::string prefix = row.terminalServer ? "Global\\" : "";
        EXPECT_EQ(ObjectName(kDatabaseMutexName).text, prefix + "TVORSQD:Mutex:DabaBase");
        EXPECT_EQ(RequestMutexName("TVORSQD_DB3").text, prefix + "TVORSQD:ReqMutex:TVORSQD_DB3");
        EXPECT_STREQ(product::AgentReadyName("TVORSQD_DB3").text, "TVOR:TVORSQD_DB3:Nsr:Initialize");
        const TvsManager manager = OpenPrinter();
        EXPECT_EQ(ObjectSecurity() != nullptr, (row.bit & OsNtAny) != 0);
        EXPECT_EQ(RecordOf(manager)->flags & (OsWindows9x | OsNtAny), row.bit);
        EXPECT_EQ(CloseManager(manager), TVS_OK);
    }
}

TEST(Versions, ObjectsAreEveryones) {
    SetUpProduct();
    const Library library;
    {
        const ManagerLockHold lock;
        ASSERT_EQ(ObjectSecurity(), nullptr);
        ASSERT_TRUE(EnsureObjectSecurity());
        ASSERT_TRUE(EnsureObjectSecurity());
    }
    const SECURITY_ATTRIBUTES* attributes = ObjectSecurity();
    EXPECT_EQ(attributes->bInheritHandle, FALSE);
    // Self-relative: no owner and no system list, the group Everyone, a list with one entry for Everyone.
    Bytes everyone = {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
    const auto* bytes = static_cast<const uint8_t*>(attributes->lpSecurityDescriptor);
    const auto* header = reinterpret_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(bytes);
    EXPECT_EQ(header->Revision, 1);
    EXPECT_EQ(header->Control, SE_SELF_RELATIVE | SE_DACL_PRESENT);
    EXPECT_EQ(header->Owner, 0u);
    EXPECT_EQ(header->Sacl, 0u);
    EXPECT_EQ(Bytes(bytes + header->Group, bytes + header->Group + 12), everyone);
    const Bytes list = Joined({{2, 0, 28, 0, 1, 0, 0, 0}, {0, 0, 20, 0}, Number(GENERIC_ALL), everyone});
    EXPECT_EQ(Bytes(bytes + header->Dacl, bytes + header->Dacl + list.size()), list);
}

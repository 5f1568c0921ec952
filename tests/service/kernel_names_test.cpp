#include "dblink/kernel_names.h"

#include <gtest/gtest.h>

#include <string>

using namespace dblink;

TEST(KernelNames, FollowThePrefixRule) {
    EXPECT_STREQ(VariableEventName(true, "TVORSQD_DB3", "PrinterStatus", VariableSignal::Changed).text,
                 "Global\\TVOR:TVORSQD_DB3:PrinterStatus:Changed");
    EXPECT_STREQ(VariableEventName(false, "TVORSQD_DB3", "RWResult", VariableSignal::Updated).text,
                 "TVOR:TVORSQD_DB3:RWResult:Updated");
    EXPECT_STREQ(InitializedEventName("TVORSQD_DB").text, "TVORSQD_DB:Initialized");
    EXPECT_STREQ(ObjectName(true, "TVORSQD:Mutex:DabaBase").text, "Global\\TVORSQD:Mutex:DabaBase");
    EXPECT_STREQ(ObjectName(false, "TVORSQD:Mutex:DabaBase").text, "TVORSQD:Mutex:DabaBase");
    EXPECT_STREQ(ObjectName(false, std::string(400, 'x')).text, "") << "no name is cut";
}

TEST(KernelNames, TerminalServicesDependOnVersionAndProductSuite) {
    const HANDLE heap = HeapCreate(0, 0, 0);
    for (const auto& [major, minor] : {std::pair{5u, 1u}, {5u, 2u}, {6u, 0u}, {10u, 0u}})
        EXPECT_TRUE(IsTerminalServer(major, minor, heap)) << major << '.' << minor;
    EXPECT_FALSE(IsTerminalServer(5, 0, heap)) << "no value";

    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "System\\CurrentControlSet\\Control\\ProductOptions", 0, nullptr, 0,
                              KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    struct Case {
        std::string suites;
        DWORD type;
        bool expected;
    };
    using std::string;
    for (const Case& row : {Case{string("Small Business\0Terminal Server\0\0", 32), REG_MULTI_SZ, true},
                            Case{string("Terminal Server\0\0", 17), REG_MULTI_SZ, true},
                            Case{string("Terminal Server", 15), REG_MULTI_SZ, true}, // stored without its NULs
                            Case{string("Terminal Server\0\0", 17), REG_SZ, false},
                            Case{string("terminal server\0\0", 17), REG_MULTI_SZ, false},
                            Case{string("Terminal Server 2\0\0", 19), REG_MULTI_SZ, false},
                            Case{string("\0Terminal Server\0\0", 18), REG_MULTI_SZ, false}, // the list ends first
                            Case{string(), REG_MULTI_SZ, false}}) {
        ASSERT_EQ(RegSetValueExA(key, "ProductSuite", 0, row.type, reinterpret_cast<const BYTE*>(row.suites.data()),
                                 static_cast<DWORD>(row.suites.size())),
                  ERROR_SUCCESS);
        EXPECT_EQ(IsTerminalServer(5, 0, heap), row.expected) << row.suites << ' ' << row.type;
        EXPECT_EQ(IsTerminalServer(4, 0, heap), row.expected);
        EXPECT_TRUE(IsTerminalServer(5, 1, heap));
    }
    RegCloseKey(key);
    HeapDestroy(heap);
}

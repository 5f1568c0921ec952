// Printers of the spooler: how records lie in a caller's buffer, what is kept where, who may change it.
#include "campaign.h"
#include "posix_kit.h"
#include "private_machine.h"
#include "spooler_kit.h"

#include <cstring>
#include <filesystem>

namespace {

constexpr DWORD kLocal = PRINTER_ENUM_LOCAL;

std::string RegistryText(const std::string& printer, const char* value) {
    HKEY key = nullptr;
    const std::string path = "System\\CurrentControlSet\\Control\\Print\\Printers\\" + printer;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return "no key";
    const Value found = GetValue(key, value);
    return found.status == ERROR_SUCCESS ? found.data.c_str() : "no value";
}

} // namespace

TEST(Spooler, RecordsStandInFrontAndTheirTextsAtTheEnd) {
    DWORD needed = 7;
    DWORD returned = 7;
    HANDLE printer = nullptr;
    EXPECT_TRUE(EnumPrintersA(kLocal, nullptr, 2, nullptr, 0, &needed, &returned)) << "of none, nothing is needed";
    EXPECT_EQ(needed + returned, 0U);
    EXPECT_EQ(Open("Any", &printer), DWORD{ERROR_INVALID_PRINTER_NAME});
    EXPECT_TRUE(!OnTheLayer() || std::filesystem::is_empty(PrivateDirectory() + "/state")) << "looking makes nothing";

    ASSERT_EQ(Add("First", "A", "COM1:", PRINTER_ATTRIBUTE_SHARED), DWORD{ERROR_SUCCESS});
    ASSERT_EQ(Add("\\\\server\\second", "B", "net"), DWORD{ERROR_SUCCESS});
    EXPECT_FAILS(EnumPrintersA(kBoth, nullptr, 2, nullptr, 0, &needed, &returned), ERROR_INSUFFICIENT_BUFFER);
    ASSERT_GT(needed, 2 * sizeof(PRINTER_INFO_2A));
    // One byte less, just enough, more than enough; at an odd address too.
    std::vector<BYTE> memory(needed + 102, 0xee);
    const DWORD whole = needed;
    EXPECT_FALSE(EnumPrintersA(kBoth, nullptr, 2, memory.data(), whole - 1, &needed, &returned));
    EXPECT_EQ(returned, 0U);
    EXPECT_EQ(memory, std::vector<BYTE>(memory.size(), 0xee));
    for (const auto& [offset, more] : {std::pair{0U, 0U}, {1U, 0U}, {0U, 100U}}) {
        std::fill(memory.begin(), memory.end(), 0xee);
        BYTE* buffer = memory.data() + offset;
        ASSERT_TRUE(EnumPrintersA(kBoth, nullptr, 2, buffer, whole + more, &needed, &returned));
        EXPECT_EQ(needed, whole);
        ASSERT_EQ(returned, 2U);
        EXPECT_EQ(memory.back(), 0xee);
        PRINTER_INFO_2A records[2];
        std::memcpy(records, buffer, sizeof records);
        for (const PRINTER_INFO_2A& record : records)
            for (const LPSTR text :
                 {record.pPrinterName, record.pShareName, record.pPortName, record.pDriverName, record.pComment,
                  record.pLocation, record.pSepFile, record.pPrintProcessor, record.pDatatype, record.pParameters}) {
                ASSERT_GE(reinterpret_cast<BYTE*>(text), buffer + sizeof records + more);
                ASSERT_LE(reinterpret_cast<BYTE*>(text) + std::strlen(text) + 1, buffer + whole + more);
            }
        EXPECT_STREQ(records[0].pPrinterName, "First");
        EXPECT_STREQ(records[0].pPortName, "COM1:");
        EXPECT_STREQ(records[0].pDriverName, "A");
        EXPECT_STREQ(records[0].pComment, "of First");
        EXPECT_STREQ(records[0].pPrintProcessor, "winprint");
        EXPECT_STREQ(records[0].pDatatype, "RAW");
        EXPECT_EQ(records[0].pServerName, nullptr);
        EXPECT_EQ(records[0].Attributes, DWORD{PRINTER_ATTRIBUTE_SHARED | PRINTER_ATTRIBUTE_LOCAL});
        EXPECT_STREQ(records[1].pServerName, "\\\\server");
        EXPECT_EQ(records[1].Attributes, DWORD{PRINTER_ATTRIBUTE_NETWORK});
        EXPECT_EQ(records[1].pSecurityDescriptor, nullptr);
    }
    ASSERT_EQ(Open("FIRST", &printer), DWORD{ERROR_SUCCESS});
    EXPECT_FAILS(GetPrinterA(printer, 2, nullptr, 0, &needed), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(GetPrinterA(printer, 2, memory.data(), needed, &needed));
    EXPECT_STREQ(reinterpret_cast<PRINTER_INFO_2A*>(memory.data())->pPrinterName, "First");
}

TEST(Spooler, LocalPrintersAreInTheRegistryAndConnectionsAreNot) {
    HANDLE local = nullptr;
    HANDLE connection = nullptr;
    ASSERT_EQ(Add("Room 1\\Laser", "Laser Driver", "LPT2:", 0, &local), DWORD{ERROR_SUCCESS});
    ASSERT_EQ(Add("\\\\server\\Laser", "Net Driver", "net", 0, &connection), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(RegistryText("Room 1,Laser", "Printer Driver"), "Laser Driver");
    EXPECT_EQ(RegistryText("Room 1,Laser", "Port"), "LPT2:");
    EXPECT_EQ(RegistryText("Room 1,Laser", "Name"), "Room 1\\Laser");
    EXPECT_EQ(RegistryText("Room 1,Laser\\PrinterDriverData", ""), "no value");
    EXPECT_EQ(RegistryText(",,server,Laser", ""), "no key");
    EXPECT_EQ(PrintersOf(PRINTER_ENUM_LOCAL), Names{"Room 1\\Laser"});
    EXPECT_EQ(PrintersOf(PRINTER_ENUM_CONNECTIONS), Names{"\\\\server\\Laser"});
    EXPECT_EQ(Add("ROOM 1\\laser"), DWORD{ERROR_PRINTER_ALREADY_EXISTS});

    HANDLE use = nullptr;
    ASSERT_EQ(Open("Room 1\\Laser", &use), DWORD{ERROR_SUCCESS});
    EXPECT_FAILS(DeletePrinter(use), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(DeletePrinter(local));
    EXPECT_TRUE(DeletePrinter(connection));
    EXPECT_EQ(RegistryText("Room 1,Laser", ""), "no key");
    EXPECT_TRUE(PrintersOf(kBoth).empty());
    // The name made anew is another printer than the one that the handles knew.
    ASSERT_EQ(Add("Room 1\\Laser"), DWORD{ERROR_SUCCESS});
    DWORD needed = 0;
    for (HANDLE gone : {use, local}) {
        EXPECT_FAILS(GetPrinterA(gone, 2, nullptr, 0, &needed), ERROR_PRINTER_DELETED);
        EXPECT_TRUE(ClosePrinter(gone));
        EXPECT_FAILS(ClosePrinter(gone), ERROR_INVALID_HANDLE);
    }
}

TEST(Spooler, WhatCannotBeIsRefused) {
    const std::string longest(220, 'n');
    const struct {
        std::string name, driver, port;
        DWORD attributes, code;
    } rows[] = {
        {longest, "D", "P", 0, ERROR_SUCCESS},
        {longest + "n", "D", "P", 0, ERROR_INVALID_PRINTER_NAME},
        {"", "D", "P", 0, ERROR_INVALID_PRINTER_NAME},
        {"a,b", "D", "P", 0, ERROR_INVALID_PRINTER_NAME},
        {"a\nb", "D", "P", 0, ERROR_INVALID_PRINTER_NAME},
        {"\\a", "D", "P", 0, ERROR_INVALID_PRINTER_NAME},
        {"\\\\server", "D", "P", 0, ERROR_INVALID_PRINTER_NAME},
        {"A", "", "P", 0, ERROR_INVALID_PARAMETER},
        {"A", std::string(260, 'd'), "P", 0, ERROR_INVALID_PARAMETER},
        {"A", "D", "P", PRINTER_ATTRIBUTE_NETWORK, ERROR_INVALID_PARAMETER},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Add(row.name, row.driver, row.port, row.attributes), row.code) << row.name;
    DWORD needed = 0;
    DWORD returned = 0;
    HANDLE printer = nullptr;
    EXPECT_FAILS(EnumPrintersA(kLocal, nullptr, 1, nullptr, 0, &needed, &returned), ERROR_INVALID_LEVEL);
    EXPECT_FAILS(EnumPrintersA(0x40, nullptr, 2, nullptr, 0, &needed, &returned), ERROR_INVALID_FLAGS);
    EXPECT_EQ(Open(longest, &printer, 0x80), DWORD{ERROR_ACCESS_DENIED}); // no such right
    EXPECT_FAILS(GetPrinterA(CreateEventA(nullptr, TRUE, FALSE, nullptr), 2, nullptr, 0, &needed),
                 ERROR_INVALID_HANDLE);
}

CHILD_PROCESS(PrintsAsAnotherUser) {
    if (!BecomeNobody()) return 1;
    HANDLE printer = nullptr;
    std::string said = PrintersOf(PRINTER_ENUM_LOCAL)[0];
    for (const ACCESS_MASK access :
         {ACCESS_MASK{0}, ACCESS_MASK{PRINTER_ACCESS_ADMINISTER}, ACCESS_MASK{PRINTER_ALL_ACCESS}})
        said += " " + std::to_string(Open("Shared", &printer, access));
    child.Say(said + " " + std::to_string(Add("Mine")) + " " + std::to_string(Add("\\\\mine\\too")));
    return 0;
}

TEST_AS_ROOT(Spooler, AnotherUserReadsButDoesNotChange) {
    ASSERT_EQ(Add("Shared"), DWORD{ERROR_SUCCESS});
    TestProcess other("PrintsAsAnotherUser");
    EXPECT_EQ(other.Hear(), "Shared 0 5 5 5 5");
    EXPECT_EQ(PrintersOf(kBoth), Names{"Shared"});
}

CHILD_PROCESS(AddsAndDeletes) {
    for (int number = 0;; ++number) {
        HANDLE printer = nullptr;
        if (Add("Killed", "Driver", "LPT1:", 0, &printer) != ERROR_SUCCESS) return 1;
        if (number == 0) child.Say("adding");
        if (!DeletePrinter(printer) || !ClosePrinter(printer)) return 2;
    }
}

TEST(SpoolerCampaign, APrinterIsWholeWhoeverIsKilled) {
    const int rounds = Rounds(15, 1000);
    for (int round = 0; round < rounds; ++round) {
        TestProcess process("AddsAndDeletes");
        ASSERT_EQ(process.Hear(), "adding");
        PauseMs(round % 7);
        process.Kill();
        HANDLE printer = nullptr;
        if (Open("Killed", &printer, PRINTER_ALL_ACCESS) == ERROR_SUCCESS) {
            EXPECT_TRUE(DeletePrinter(printer));
        }
        // A key that was left over is taken over.
        ASSERT_EQ(Add("Killed", "Next", "P", 0, &printer), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(RegistryText("Killed", "Printer Driver"), "Next");
        EXPECT_TRUE(DeletePrinter(printer));
    }
}

TEST(Spooler, DamageIsTold) {
    ASSERT_EQ(Add("A"), DWORD{ERROR_SUCCESS});
    const std::string store = PrivateDirectory() + "/state/spool.sqlite";
    std::string bytes = ReadWholeFile(store);
    bytes[bytes.rfind("Driver")] ^= 1;
    ReplaceFile(store, bytes);
    HANDLE printer = nullptr;
    DWORD needed = 0;
    ASSERT_EQ(Open("A", &printer), DWORD{ERROR_SUCCESS}); // the damage is elsewhere
    EXPECT_FAILS(GetPrinterA(printer, 2, nullptr, 0, &needed), ERROR_BADDB);
    EXPECT_EQ(Add("B"), DWORD{ERROR_BADDB});
}

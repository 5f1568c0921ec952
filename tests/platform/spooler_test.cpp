// Printers of the spooler: how records lie in a caller's buffer, what is kept where, who may change it.
#include "campaign.h"
#include "private_machine.h"
#include "spooler_kit.h"

#include <filesystem>

namespace {

std::string RegistryText(const std::string& printer, const char* value) {
    HKEY key = nullptr;
    const std::string path = "System\\CurrentControlSet\\Control\\Print\\Printers\\" + printer;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return "no key";
    const Value found = GetValue(key, value);
    return found.status == ERROR_SUCCESS ? found.data.c_str() : "no value";
}

} // namespace

TEST(Spooler, LocalPrintersAreInTheRegistryAndConnectionsAreNot) {
    HANDLE local = nullptr, connection = nullptr;
    EXPECT_EQ(Open("Any", &local), DWORD{ERROR_INVALID_PRINTER_NAME});
    EXPECT_TRUE(PrintersOf(kBoth).empty());
    EXPECT_TRUE(std::filesystem::is_empty(PrivateDirectory() + "/state")) << "looking makes nothing";
    ASSERT_EQ(Add("Room 1\\Laser", "Laser Driver", "LPT2:", 0, &local), DWORD{ERROR_SUCCESS});
    ASSERT_EQ(Add("\\\\server\\Laser", "Net Driver", "net", 0, &connection), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(RegistryText("Room 1,Laser", "Printer Driver"), "Laser Driver");
    EXPECT_EQ(PrintersOf(PRINTER_ENUM_LOCAL), Names{"Room 1\\Laser"});
    EXPECT_EQ(PrintersOf(PRINTER_ENUM_CONNECTIONS), Names{"\\\\server\\Laser"});
    EXPECT_EQ(Add("ROOM 1\\laser"), DWORD{ERROR_PRINTER_ALREADY_EXISTS});

    const HANDLE use = Opened("ROOM 1\\LASER");
    EXPECT_EQ(RecordOf(use), "Room 1\\Laser, Laser Driver, LPT2:, of Room 1\\Laser, , none, 64");
    EXPECT_EQ(RecordOf(connection), "\\\\server\\Laser, Net Driver, net, of \\\\server\\Laser, , \\\\server, 16");
    EXPECT_FAILS(DeletePrinter(use), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(DeletePrinter(local) && DeletePrinter(connection));
    EXPECT_EQ(RegistryText("Room 1,Laser", ""), "no key");
    EXPECT_TRUE(PrintersOf(kBoth).empty());
    // The name made anew is another printer than the one that the handles knew.
    ASSERT_EQ(Add("Room 1\\Laser"), DWORD{ERROR_SUCCESS});
    for (HANDLE gone : {use, local}) {
        EXPECT_EQ(RecordOf(gone), "error " + std::to_string(ERROR_PRINTER_DELETED));
        EXPECT_TRUE(ClosePrinter(gone));
    }
}

TEST(Spooler, WhatCannotBeIsRefused) {
    const std::string longest(220, 'n');
    const struct {
        std::string name;
        DWORD code;
        std::string driver = "D";
    } rows[] = {
        {longest, ERROR_SUCCESS},
        {longest + "n", ERROR_INVALID_PRINTER_NAME},
        {"", ERROR_INVALID_PRINTER_NAME},
        {"a,b", ERROR_INVALID_PRINTER_NAME},
        {"a\nb", ERROR_INVALID_PRINTER_NAME},
        {"\\\\server", ERROR_INVALID_PRINTER_NAME},
        {"A", ERROR_INVALID_PARAMETER, ""},
        {"A", ERROR_INVALID_PARAMETER, std::string(260, 'd')},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Add(row.name, row.driver, "P"), row.code) << row.name;
    DWORD needed = 0, returned = 0;
    HANDLE printer = nullptr;
    EXPECT_FAILS(EnumPrintersA(PRINTER_ENUM_LOCAL, nullptr, 1, nullptr, 0, &needed, &returned), ERROR_INVALID_LEVEL);
    EXPECT_FAILS(EnumPrintersA(PRINTER_ENUM_NETWORK | PRINTER_ENUM_LOCAL, nullptr, 2, nullptr, 0, &needed, &returned),
                 ERROR_INVALID_FLAGS);
    EXPECT_EQ(Open(longest, &printer, 0x80), DWORD{ERROR_ACCESS_DENIED}); // no such right
}

CHILD_PROCESS(PrintsAsAnotherUser) {
    if (!BecomeNobody()) return 1;
    HANDLE printer = nullptr;
    std::string said = PrintersOf(PRINTER_ENUM_LOCAL)[0];
    for (const DWORD access : {DWORD{0}, DWORD{PRINTER_ACCESS_ADMINISTER}, DWORD{PRINTER_ALL_ACCESS}})
        said += " " + std::to_string(Open("Shared", &printer, access));
    child.Say(said + " " + std::to_string(Add("Mine")) + " " + std::to_string(Add("\\\\mine\\too")));
    return 0;
}

TEST_AS_ROOT(Spooler, AnotherUserReadsButDoesNotChange) {
    ASSERT_EQ(Add("Shared"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(TestProcess("PrintsAsAnotherUser").Hear(), "Shared 0 5 5 5 5");
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
    KillStorm("AddsAndDeletes", "", Rounds(15, 1000), [] {
        HANDLE printer = nullptr;
        EXPECT_TRUE(Open("Killed", &printer, PRINTER_ALL_ACCESS) != ERROR_SUCCESS || DeletePrinter(printer));
        // A key that was left over is taken over.
        ASSERT_EQ(Add("Killed", "Next", "P", 0, &printer), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(RegistryText("Killed", "Printer Driver"), "Next");
        EXPECT_TRUE(DeletePrinter(printer));
    });
}

TEST(Spooler, DamageIsTold) {
    ASSERT_EQ(Add("A"), DWORD{ERROR_SUCCESS});
    const std::string store = PrivateDirectory() + "/state/spool.sqlite";
    std::string bytes = ReadWholeFile(store);
    bytes[bytes.rfind("Driver")] ^= 1;
    ReplaceFile(store, bytes);
    EXPECT_EQ(RecordOf(Opened("A")), "error " + std::to_string(ERROR_BADDB)); // the damage is not where its name is
    EXPECT_EQ(Add("B"), DWORD{ERROR_BADDB});
}

// Opening and closing managers: every code in its order, the client kinds, the printer list.
#include "base/timings.h"
#include "machine.h"
#include "manager/printer_list.h"
#include "manager/printer_registration.h"
#include "wide_literal.h"

#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

PrinterListEntry Entry(uint32_t index, const std::string& printer, uint32_t owner = 0, const std::string& driver = "") {
    PrinterListEntry entry = {};
    entry.index = index;
    entry.ownerProcessId = owner;
    std::strcpy(entry.printerName, printer.c_str());
    std::strcpy(entry.databaseName, ("TVORSQD_DB" + std::to_string(index)).c_str());
    std::strcpy(entry.driverName, driver.c_str());
    return entry;
}

Bytes ListOf(const std::vector<PrinterListEntry>& entries) {
    const auto count = static_cast<uint32_t>(entries.size());
    Bytes list = Joined({Number(static_cast<uint32_t>(4 + count * sizeof(PrinterListEntry))), Number(count)});
    for (const PrinterListEntry& entry : entries)
        list = Joined({list, BytesOfRecord(entry)});
    return list;
}

struct PrinterLists : Opened {
    PrinterLists() { AddPrinter("New", kModel); }
    Bytes Stored() const { return StoredBytes(master, "PrinterDatabase"); }
    void Store(const Bytes& list) const { StoreBytes(master, "PrinterDatabase", list); }
    const DatabaseHandle master = record->masterDatabase.handle;
};
using Opening = Opened;
using Closing = Opened;

} // namespace

TEST(OpeningCodes, ComeInTheirOrder) {
    InstallProduct();
    AddPrinter("No model", "Unknown");
    AddModelVariable(kModel, "X", 4, 4, Number(0));
    const Library library;
    const std::string longName(260, 'p');
    // Not installed: before everything else.
    g_installed = false;
    EXPECT_EQ(OpenStatus("No model", 13), TVS_E_UNAVAILABLE);
    g_installed = true;
    // An unregistered model for kind 1, a kind that does not exist, names that cannot be.
    EXPECT_EQ(OpenStatus("No model", 1), TVS_E_UNREGISTERED);
    EXPECT_EQ(OpenStatus(longName, 13), TVS_E_UNKNOWN);
    TvsManager manager = 0;
    EXPECT_EQ(OpenManagerExA(nullptr, nullptr, 2, &manager), TVS_E_FAULT);
    EXPECT_EQ(OpenStatus(longName, 2), TVS_E_UNAVAILABLE);
    EXPECT_EQ(OpenStatus(kPrinter, 2, std::string(64, 'u').c_str()), TVS_E_UNAVAILABLE);
    EXPECT_EQ(KindMask(), 0u); // nothing was set before
    // The product is not initialised; the bit stays.
    for (const uint32_t kind : {0u, 7u, 8u, 9u, 10u})
        EXPECT_EQ(OpenStatus(kPrinter, kind), TVS_E_UNAVAILABLE) << kind;
    EXPECT_EQ(KindMask(), 0x40u | 0x80 | 0x100 | 0x200);
    EXPECT_EQ(g_processKindMask, KindMask());
    // No service. Windows NT 3.51 waits for it while fewer than three processes have the library.
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE);
    EXPECT_EQ(GetLastError(), DWORD{RPC_S_SERVER_UNAVAILABLE});
    if (OnTheLayer()) {
        UseSetting("ORIEL_WINDOWS_VERSION", "3.51");
        EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_SERVICE_TIMEOUT);
        UseSetting("ORIEL_WINDOWS_VERSION", nullptr);
    }
    // A printer that a foreign process may not add. One without a driver, which is in the list all the same.
    const Service service;
    AddPrinter(kPrinter, kModel);
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_OK);
    const HANDLE initialised = ProductInitialisedEvent();
    EXPECT_EQ(OpenStatus("Nowhere", 10), TVS_E_UNAVAILABLE);
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(OpenStatus(kPrinter, 10), TVS_OK);
    EXPECT_EQ(OpenStatus("", 2), TVS_E_UNAVAILABLE);
    EXPECT_EQ(OpenStatus("Nowhere", 2), TVS_E_MEMORY);
    EXPECT_EQ(StoredBytes(RecordOf(OpenPrinter())->masterDatabase.handle, "PrinterDatabase").size(),
              8 + 2 * sizeof(PrinterListEntry));
    CloseHandle(initialised);
    // A handle that cannot be stored: opened, and closed again.
    EXPECT_EQ(OpenManagerExA(kPrinter.c_str(), "u", 2, nullptr), TVS_E_UNAVAILABLE);
    EXPECT_EQ(g_openManagerCount, 1u);
}

TEST_F(Opening, AManagerCarriesWhatItWasOpenedWith) {
    if (OnTheLayer()) UseSetting("ORIEL_LOGON_NAME", "logged-on");
    char loggedOn[257] = "";
    DWORD room = sizeof loggedOn;
    ASSERT_TRUE(GetUserNameA(loggedOn, &room));
    const char* printer = kPrinter.c_str();
    const WCHAR* wide = WIDE("Front desk");
    const std::string user63(63, 'u');
    const std::tuple<std::function<int32_t()>, uint32_t, std::string> rows[] = {
        {[&] { return OpenManagerExA(printer, user63.c_str(), 3, &manager); }, 3, user63},
        {[&] { return OpenManagerExA(printer, nullptr, 3, &manager); }, 3, loggedOn},
        {[&] { return OpenManagerExW(wide, WIDE("J\u00fcrgen"), 12, &manager); }, 12, "J\xfcrgen"},
    };
    for (const auto& [open, kind, user] : rows) {
        ASSERT_EQ(open(), TVS_OK);
        record = RecordOf(manager);
        EXPECT_EQ(record->userName, user);
        EXPECT_EQ(record->clientKind, kind);
        EXPECT_STREQ(record->printerName, printer);
        EXPECT_STREQ(record->databaseName, "TVORSQD_DB1");
        EXPECT_STREQ(record->driverName, kModel.c_str());
        EXPECT_EQ(record->printerIndex, 1u);
        EXPECT_EQ(record->variableCount, kVariableCount);
        EXPECT_EQ(CloseManager(manager), TVS_OK);
        EXPECT_EQ(CloseManager(manager), TVS_E_HANDLE);
    }
    if (!OnTheLayer()) return; // where it depends on who runs the test
    // Kind 0, where there is no desktop and so no agent.
    EXPECT_EQ(OpenManagerA(printer, nullptr, &manager), TVS_OK);
    EXPECT_EQ(OpenManagerW(wide, WIDE(""), &manager), TVS_OK);
    EXPECT_STREQ(RecordOf(manager)->userName, loggedOn);
}

TEST_F(Opening, KindsDoWhatTheyAreFor) {
    // 4 asks for compulsive polling; 12, which shares its bit, does not. 1 needs a registered model; this one is.
    const TvsManager watcher = OpenPrinter(12);
    EXPECT_EQ(NumberOf(watcher, "CompulsivePolling"), 0u);
    OpenPrinter(4);
    EXPECT_EQ(NumberOf(watcher, "CompulsivePolling"), 1u);
    EXPECT_EQ(OpenStatus(kPrinter, 1), TVS_OK);
    // LMFunction is read at open, except under Windows NT 3.50 and 3.51.
    EXPECT_EQ(Update(watcher, "LMFunction", Number(77)), TVS_OK);
    EXPECT_EQ(RecordOf(OpenPrinter())->lmFunction, 77u);
    if (!OnTheLayer()) return;
    UseSetting("ORIEL_WINDOWS_VERSION", "3.51");
    EXPECT_EQ(RecordOf(OpenPrinter())->lmFunction, 0u);
}

TEST_F(Opening, DesktopAgentIsStartedOnceAndWhereThereIsADesktop) {
    NeedsTheLayer("programs that are scripts");
    UseSetting("DISPLAY", ":0");
    g_timings.agentReady = 0;
    g_timings.agentReadyLong = 0;
    // An agent that leaves its arguments in a file.
    const std::string agent = PrivateDirectory() + "/product/TVORPZ.EXE";
    const std::string started = PrivateDirectory() + "/started";
    std::ofstream(agent) << "#!/bin/sh\necho \"$@\" >> " << started << "\n";
    std::filesystem::permissions(agent, std::filesystem::perms(0755));
    const auto arguments = [&] {
        std::string line;
        std::getline(std::ifstream(started), line);
        return line;
    };
    for (const uint32_t kind : {12u, 0u, 7u, 8u, 11u}) {
        std::filesystem::remove(started);
        EXPECT_EQ(OpenStatus(kPrinter, kind), TVS_OK) << kind;
        EXPECT_TRUE(WaitUntil([&] { return arguments() == (kind != 12 ? "/S" : ""); })) << kind;
    }
    // Not for the system itself, in no other window station, not when it runs. An agent that cannot be started would be
    // a failure, so there is none.
    std::filesystem::remove(agent);
    EXPECT_EQ(OpenStatus(kPrinter, 11), TVS_E_UNAVAILABLE);
    UseSetting("ORIEL_LOGON_NAME", "System");
    EXPECT_EQ(OpenStatus(kPrinter, 11), TVS_OK);
    UseSetting("ORIEL_LOGON_NAME", "operator");
    UseSetting("ORIEL_WINDOW_STATION", "Service-0x0-3e7$");
    EXPECT_EQ(OpenStatus(kPrinter, 0), TVS_OK);
    UseSetting("ORIEL_WINDOW_STATION", "winsta0");
    EXPECT_EQ(OpenStatus(kPrinter, 0), TVS_E_UNAVAILABLE);
    const HWND window = MakeWindow("TVORPSPWndClass");
    EXPECT_EQ(OpenStatus(kPrinter, 0), TVS_OK);
    DestroyWindow(window);
}

TEST_F(PrinterLists, APrintersDatabaseIsOpenedWithTheListIfItIsReady) {
    const auto handles = [&] {
        product::DatabaseInfo info = {};
        EXPECT_EQ(GetDatabaseInfo(record->printerDatabase, &info), Answer::Done);
        return info.openHandles;
    };
    ASSERT_EQ(handles(), 1u);
    const TvsManager second = OpenPrinter();
    EXPECT_EQ(handles(), 2u);
    EXPECT_EQ(CloseManager(second), TVS_OK);
    EXPECT_EQ(handles(), 1u);

    Store(ListOf({Entry(1, kPrinter), Entry(7, "Not made"), Entry(8, "Half made")}));
    DatabaseHandle half = 0;
    ASSERT_EQ(CreateDatabase("TVORSQD_DB8", &half), Answer::Done);
    for (const auto& [printer, database] : {std::pair(kPrinter.c_str(), "TVORSQD_DB1"), std::pair("Not made", ""),
                                            std::pair("Half made", ""), std::pair("Not listed", "")}) {
        SCOPED_TRACE(printer);
        EnteredPrinter entered;
        EXPECT_EQ(EnterPrinter(printer, &entered), Answer::Done);
        EXPECT_NE(entered.master.handle, 0u);
        EXPECT_STREQ(entered.name, database);
        EXPECT_EQ(entered.printer.handle != 0, *database != '\0');
        for (const EnteredDatabase& each : {entered.master, entered.printer}) {
            PublishedPlace place = {};
            if (each.handle == 0 || !OnTheLayer()) continue;
            EXPECT_EQ(FindPublishedValues(each.handle, &place), Answer::Done);
            EXPECT_STREQ(each.place.section.text, place.section.text);
            EXPECT_STREQ(each.place.life.text, place.life.text);
            EXPECT_EQ(each.place.size, place.size);
        }
        EXPECT_EQ(CloseDatabases(entered.master.handle, entered.printer.handle), Answer::Done);
    }
}

TEST_F(PrinterLists, GrowsAndKeepsItsNumbers) {
    AddPrinter("Back office", kModel);
    AddPrinter("front desk", kModel); // another printer than "Front desk"
    OpenPrinter(2, "Back office");
    EXPECT_EQ(RecordOf(OpenPrinter(2, "front desk"))->printerIndex, 3u);
    EXPECT_EQ(Stored(), ListOf({Entry(1, kPrinter, 0, kModel), Entry(2, "Back office", 0, kModel),
                                Entry(3, "front desk", 0, kModel)}));
    Store(ListOf({Entry(1, kPrinter), Entry(5, "A"), Entry(3, "B")}));
    EXPECT_EQ(RecordOf(OpenPrinter(2, "New"))->printerIndex, 6u);
    EXPECT_EQ(Stored(), ListOf({Entry(1, kPrinter), Entry(5, "A"), Entry(3, "B"), Entry(6, "New", 0, kModel)}));
    // What the list says of the driver stands over the registry.
    Store(ListOf({Entry(1, kPrinter, 0, "Listed Driver")}));
    EXPECT_STREQ(RecordOf(OpenPrinter())->driverName, "Listed Driver");
}

TEST_F(PrinterLists, DamagedListsRefuseTheOpenAndStayAsTheyAre) {
    const Bytes good = ListOf({Entry(1, kPrinter)});
    Bytes countTooHigh = good;
    std::memset(&countTooHigh[4], 0xFF, 4);
    Bytes endlessName = good;
    std::memset(&endlessName[8 + 268], 'x', 32); // databaseName
    for (const Bytes& list : {ListOf({}), Bytes(559), countTooHigh, endlessName}) {
        Store(list);
        EXPECT_EQ(OpenStatus(kPrinter, 6), TVS_E_UNAVAILABLE);
        EXPECT_EQ(Stored(), list);
    }
    // No number is left; an entry that is no text is nobody's, and no harm to others.
    Store(ListOf({Entry(0xFFFFFFFF, "Last")}));
    EXPECT_EQ(OpenStatus("New", 2), TVS_E_UNAVAILABLE);
    PrinterListEntry nameless = Entry(4, "");
    std::memset(nameless.printerName, 'x', sizeof nameless.printerName);
    Store(ListOf({nameless, Entry(1, kPrinter)}));
    EXPECT_EQ(RecordOf(OpenPrinter(2, "New"))->printerIndex, 5u);
}

TEST_F(PrinterLists, OwnershipIsTakenAndGivenBack) {
    const DWORD self = GetCurrentProcessId();
    const auto isOwner = [&](DWORD owner) { return Stored() == ListOf({Entry(1, kPrinter, owner, kModel)}); };
    const TvsManager first = OpenPrinter(6);
    EXPECT_TRUE(isOwner(self));
    EXPECT_EQ(CloseManager(first), TVS_OK);
    EXPECT_TRUE(isOwner(0));
    // A printer of another process: known to be owned, not taken over, not given back.
    const HANDLE mark = CreateEventA(nullptr, TRUE, FALSE, "Global\\TVORSQD:Owner:TVORSQD_DB1");
    Store(ListOf({Entry(1, kPrinter, self + 1, kModel)}));
    RemoveKindBits(0x20);
    const TvsManager second = OpenPrinter(6);
    EXPECT_EQ(RecordOf(second)->ownerProcessId, self + 1);
    EXPECT_EQ(RecordOf(second)->flags & ManagerOwnsPrinter, 0u);
    EXPECT_NE(KindMask() & 0x20, 0u);
    EXPECT_EQ(CloseManager(second), TVS_OK);
    EXPECT_TRUE(isOwner(self + 1));
    CloseHandle(mark);
    // An open that fails later gives it back too.
    Store(ListOf({Entry(1, kPrinter, 0, kModel)}));
    EXPECT_EQ(OpenManagerExA(kPrinter.c_str(), "u", 6, nullptr), TVS_E_UNAVAILABLE);
    EXPECT_TRUE(isOwner(0));
}

TEST_F(Closing, TheManagerThatTerminatesWaitsForTheOthers) {
    g_timings.terminationPoll = 1;
    g_timings.terminationPolls = 0xFFFFFFFF;
    StoreBytes(database, "TerminateManager", Number(1));
    EXPECT_EQ(CloseManager(OpenPrinter()), TVS_OK); // one without the flag does not wait
    const TvsManager other = OpenPrinter();
    {
        const ManagerLockHold lock;
        record->flags |= ManagerTerminating;
    }
    const TestThread closer([&] { EXPECT_EQ(CloseManager(manager), TVS_OK); });
    EXPECT_FALSE(IsSet(closer.Handle(), 50));
    EXPECT_EQ(CloseManager(other), TVS_OK);
}

// Opening and closing managers: every code in its order, the client kinds, the printer list.
#include "base/timings.h"
#include "machine.h"
#include "manager/printer_list.h"
#include "manager/printer_registration.h"
#include "private_machine.h"
#include "product/client.h"
#include "wide_literal.h"

#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

std::vector<PrinterListEntry> ReadPrinterList(TvsManager manager) {
    DWORD size = 0;
    EXPECT_EQ(ReadVariable(RecordOf(manager)->masterDatabase, "PrinterDatabase", nullptr, 0, &size), Answer::Done);
    Bytes list(size);
    EXPECT_EQ(ReadVariable(RecordOf(manager)->masterDatabase, "PrinterDatabase", list.data(), size, &size),
              Answer::Done);
    uint32_t header[2];
    std::memcpy(header, list.data(), sizeof header);
    EXPECT_EQ(header[0], size - 4);
    EXPECT_EQ(size, 8 + header[1] * sizeof(PrinterListEntry));
    std::vector<PrinterListEntry> entries(header[1]);
    std::memcpy(entries.data(), list.data() + 8, entries.size() * sizeof(PrinterListEntry));
    return entries;
}

PrinterListEntry Entry(uint32_t index, const std::string& printer, uint32_t owner = 0) {
    PrinterListEntry entry = {};
    entry.index = index;
    entry.ownerProcessId = owner;
    std::strcpy(entry.printerName, printer.c_str());
    std::strcpy(entry.databaseName, ("TVORSQD_DB" + std::to_string(index)).c_str());
    return entry;
}

Bytes ListOf(const std::vector<PrinterListEntry>& entries) {
    Bytes bytes(8 + entries.size() * sizeof(PrinterListEntry));
    const uint32_t header[2] = {static_cast<uint32_t>(bytes.size()) - 4, static_cast<uint32_t>(entries.size())};
    std::memcpy(bytes.data(), header, sizeof header);
    const auto* first = reinterpret_cast<const uint8_t*>(entries.data());
    std::copy(first, first + bytes.size() - 8, bytes.begin() + 8);
    return bytes;
}

void WriteList(DatabaseHandle master, const Bytes& list) {
    EXPECT_EQ(WriteVariable(master, "PrinterDatabase", list.data(), static_cast<DWORD>(list.size())), Answer::Done);
}

std::string AgentFile() {
    return PrivateDirectory() + "/product/TVORPZ.EXE";
}

// A desktop agent that leaves its arguments in a file.
void InstallAgent() {
    std::ofstream(AgentFile()) << "#!/bin/sh\necho \"$@\" >> " << PrivateDirectory() << "/started\n";
    std::filesystem::permissions(AgentFile(), std::filesystem::perms(0755));
    g_timings.agentReady = 0;
    g_timings.agentReadyLong = 0;
}

std::string AgentStarts() {
    std::ifstream file(PrivateDirectory() + "/started");
    return {std::istreambuf_iterator<char>(file), {}};
}

// In code page 932, where the second byte of U+30BD is that of a backslash.
CHILD_PROCESS(OpensInCodePage932) {
    const Library library;
    const WideString longest(127, u'\u30BD'); // 254 bytes: the registry takes no longer key
    std::string narrow;
    for (int i = 0; i < 127; ++i)
        narrow += "\x83\x5C";
    AddPrinter(narrow, kModel);
    TvsManager manager = 0;
    EXPECT_EQ(OpenManagerExW(longest.c_str(), WIDE("\u30BD"), 2, &manager), TVS_OK);
    EXPECT_EQ(RecordOf(manager)->printerName, narrow);
    EXPECT_STREQ(RecordOf(manager)->userName, "\x83\x5C");
    EXPECT_EQ(RecordOf(manager)->variableCount, 58u);
    EXPECT_EQ(OpenManagerExW((longest + WIDE("\u30BD\u30BD\u30BD")).c_str(), WIDE(""), 2, &manager), TVS_E_UNAVAILABLE);
    EXPECT_EQ(OpenManagerExW(longest.c_str(), WideString(32, u'\u30BD').c_str(), 2, &manager), TVS_E_UNAVAILABLE);
    // Backslashes become commas, but not those that end a character; at the end the character is cut.
    EXPECT_STREQ(PrinterKeyName("\\\\\x83\\\\\x83").name, ",,\x83\\,\x83");
    return testing::Test::HasFailure();
}

} // namespace

TEST(Opening, NamesAreTextOfTheCodePage) {
    SetUpProduct();
    const Service service;
    TestProcess process("OpensInCodePage932", {}, {{"ORIEL_ANSI_CODE_PAGE", "932"}});
    EXPECT_EQ(process.Wait(), 0) << process.HearAll();
}

TEST(Opening, CodesComeInTheirOrder) {
    InstallProduct();
    AddPrinter("No model", "Unknown");
    AddModelVariable(kModel, "X", 4, 4, Number(0));
    const Library library;
    const std::string longName(260, 'p');
    const std::string longUser(64, 'u');
    // 1: not installed. Before everything else.
    g_installed = false;
    EXPECT_EQ(OpenStatus("No model", 13), TVS_E_UNAVAILABLE);
    EXPECT_EQ(OpenManagerExA(nullptr, nullptr, 1, nullptr), TVS_E_UNAVAILABLE);
    g_installed = true;
    // 2, 3: an unregistered model for kind 1, a kind that does not exist.
    EXPECT_EQ(OpenStatus("No model", 1), TVS_E_UNREGISTERED);
    EXPECT_EQ(OpenStatus(longName, 13), TVS_E_UNKNOWN);
    EXPECT_EQ(OpenStatus(kPrinter, 0xFFFFFFFF), TVS_E_UNKNOWN);
    // Names that cannot be.
    TvsManager manager = 0;
    EXPECT_EQ(OpenManagerExA(nullptr, nullptr, 2, &manager), TVS_E_FAULT);
    EXPECT_EQ(OpenStatus("", 2), TVS_E_UNAVAILABLE);
    EXPECT_EQ(OpenStatus(longName, 2), TVS_E_UNAVAILABLE);
    EXPECT_EQ(OpenStatus(kPrinter, 2, longUser.c_str()), TVS_E_UNAVAILABLE);
    EXPECT_EQ(KindMask(), 0u); // nothing was set before
    // 9: the product is not initialised; the bit stays.
    for (uint32_t kind : {0u, 7u, 8u, 9u, 10u})
        EXPECT_EQ(OpenStatus(kPrinter, kind), TVS_E_UNAVAILABLE) << kind;
    EXPECT_EQ(KindMask(), 0x40u | 0x80 | 0x100 | 0x200);
    EXPECT_EQ(g_processKindMask, KindMask());
    // 14: no service.
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE);
    EXPECT_EQ(GetLastError(), DWORD{RPC_S_SERVER_UNAVAILABLE});
    // 13: Windows NT 3.51 waits for it while fewer than three processes have the library.
    if (OnTheLayer()) {
        UseSetting("ORIEL_WINDOWS_VERSION", "3.51");
        EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_SERVICE_TIMEOUT);
        UseSetting("ORIEL_WINDOWS_VERSION", nullptr);
    }
    // 14: a printer that a foreign process may not add. 15: one without a driver, which is in the list all the same.
    const Service service;
    AddPrinter(kPrinter, kModel);
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_OK);
    const HANDLE initialised = ProductInitialisedEvent();
    EXPECT_EQ(OpenStatus("Nowhere", 10), TVS_E_UNAVAILABLE);
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(OpenStatus(kPrinter, 10), TVS_OK);
    EXPECT_EQ(OpenStatus("Nowhere", 2), TVS_E_MEMORY);
    EXPECT_EQ(ReadPrinterList(OpenPrinter()).size(), 2u);
    CloseHandle(initialised);
    // 28: a handle that cannot be stored: opened, and closed again.
    EXPECT_EQ(OpenManagerExA(kPrinter.c_str(), "u", 2, nullptr), TVS_E_UNAVAILABLE);
    EXPECT_EQ(g_openManagerCount, 1u);
}

TEST(Opening, AManagerCarriesWhatItWasOpenedWith) {
    const Product product;
    if (OnTheLayer()) UseSetting("ORIEL_LOGON_NAME", "logged-on");
    char loggedOn[257] = "";
    DWORD room = sizeof loggedOn;
    ASSERT_TRUE(GetUserNameA(loggedOn, &room));
    EXPECT_TRUE(std::string(loggedOn) == "logged-on" || !OnTheLayer());
    const std::string user63(63, 'u');
    const WideString wideUser63(63, u'u');
    TvsManager manager = 0;
    struct Row {
        std::function<int32_t()> open;
        uint32_t kind;
        std::string user;
    };
    const char* printer = kPrinter.c_str();
    const Row rows[] = {
        {[&] { return OpenManagerExA(printer, user63.c_str(), 3, &manager); }, 3, user63},
        {[&] { return OpenManagerExA(printer, nullptr, 3, &manager); }, 3, loggedOn},
        {[&] { return OpenManagerExW(WIDE("Front desk"), wideUser63.c_str(), 3, &manager); }, 3, user63},
        {[&] { return OpenManagerExW(WIDE("Front desk"), nullptr, 3, &manager); }, 3, loggedOn},
        {[&] { return OpenManagerExW(WIDE("Front desk"), WIDE("J\u00fcrgen"), 12, &manager); }, 12, "J\xfcrgen"},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(row.open(), TVS_OK);
        const ManagerRecord* record = RecordOf(manager);
        EXPECT_EQ(record->userName, row.user);
        EXPECT_EQ(record->clientKind, row.kind);
        EXPECT_STREQ(record->printerName, printer);
        EXPECT_STREQ(record->databaseName, "TVORSQD_DB1");
        EXPECT_STREQ(record->driverName, kModel.c_str());
        EXPECT_EQ(record->printerIndex, 1u);
        EXPECT_EQ(record->variableCount, 58u);
        EXPECT_EQ(CloseManager(manager), TVS_OK);
        EXPECT_EQ(CloseManager(manager), TVS_E_HANDLE);
    }
    // Kind 0 starts the desktop agent, which there is none of; and where there is no desktop it needs none.
    if (OnTheLayer()) UseSetting("ORIEL_WINDOW_STATION", "WinSta0");
    EXPECT_EQ(OpenManagerA(printer, nullptr, &manager), TVS_E_UNAVAILABLE);
    EXPECT_EQ(CloseManager(manager), TVS_E_HANDLE);
    if (!OnTheLayer()) return; // where it depends on who runs the test
    UseSetting("ORIEL_WINDOW_STATION", nullptr);
    EXPECT_EQ(OpenManagerA(printer, nullptr, &manager), TVS_OK);
    TvsManager second = 0;
    EXPECT_EQ(OpenManagerW(WIDE("Front desk"), WIDE(""), &second), TVS_OK);
    EXPECT_NE(manager, second);
    EXPECT_STREQ(RecordOf(second)->userName, loggedOn);
    EXPECT_EQ(CloseManager(manager), TVS_OK);
    EXPECT_EQ(NumberOf(second, "ModelNumber"), 7u);
}

TEST(Opening, KindsDoWhatTheyAreFor) {
    const Product product;
    // 4 asks for compulsive polling; 12, which shares its bit, does not.
    const TvsManager watcher = OpenPrinter(12);
    EXPECT_EQ(NumberOf(watcher, "CompulsivePolling"), 0u);
    OpenPrinter(4);
    EXPECT_EQ(NumberOf(watcher, "CompulsivePolling"), 1u);
    // 1 needs a registered model; this one is.
    EXPECT_EQ(OpenStatus(kPrinter, 1), TVS_OK);
    // LMFunction is read at open, except under Windows NT 3.50 and 3.51.
    EXPECT_EQ(Update(watcher, "LMFunction", Number(77)), TVS_OK);
    EXPECT_EQ(RecordOf(OpenPrinter())->lmFunction, 77u);
    if (!OnTheLayer()) return;
    UseSetting("ORIEL_WINDOWS_VERSION", "3.50");
    EXPECT_EQ(RecordOf(OpenPrinter())->lmFunction, 0u);
}

TEST(Opening, DesktopAgentIsStartedOnceAndWhereThereIsADesktop) {
    NeedsTheLayer("programs that are scripts");
    const Product product;
    UseSetting("DISPLAY", ":0");
    InstallAgent();
    const auto startsAfter = [](uint32_t kind) {
        std::filesystem::remove(PrivateDirectory() + "/started");
        EXPECT_EQ(OpenStatus(kPrinter, kind), TVS_OK) << kind;
        return AgentStarts();
    };
    for (uint32_t kind : {0u, 7u, 8u, 11u}) {
        startsAfter(kind);
        EXPECT_TRUE(WaitUntil([] { return AgentStarts() == "/S\n"; })) << kind;
    }
    for (uint32_t kind : {2u, 6u, 9u, 12u})
        EXPECT_EQ(startsAfter(kind), "") << kind;

    // Not for the system itself, in no other window station, not when it runs. An agent that cannot be started would be
    // a failure, so there is none.
    std::filesystem::remove(AgentFile());
    EXPECT_EQ(OpenStatus(kPrinter, 11), TVS_E_UNAVAILABLE);
    UseSetting("ORIEL_LOGON_NAME", "System");
    EXPECT_EQ(OpenStatus(kPrinter, 11), TVS_OK);
    UseSetting("ORIEL_LOGON_NAME", "operator");
    for (const char* station : {"Service-0x0-3e7$", "none"}) {
        UseSetting("ORIEL_WINDOW_STATION", station);
        EXPECT_EQ(OpenStatus(kPrinter, 0), TVS_OK);
    }
    UseSetting("ORIEL_WINDOW_STATION", nullptr);
    UseSetting("DISPLAY", nullptr);
    EXPECT_EQ(OpenStatus(kPrinter, 0), TVS_OK);
    UseSetting("ORIEL_WINDOW_STATION", "winsta0");
    EXPECT_EQ(OpenStatus(kPrinter, 0), TVS_E_UNAVAILABLE);
    WNDCLASSEXA windowClass = {};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = DefWindowProcA;
    windowClass.lpszClassName = "TVORPSPWndClass";
    RegisterClassExA(&windowClass);
    const HWND window =
        CreateWindowExA(0, "TVORPSPWndClass", "any title", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(OpenStatus(kPrinter, 0), TVS_OK);
    DestroyWindow(window);

    // An agent that says that it is ready is waited for no longer.
    InstallAgent();
    std::filesystem::remove(PrivateDirectory() + "/started");
    g_timings.agentReadyLong = 60000;
    const HANDLE ready = CreateEventA(nullptr, TRUE, FALSE, "TVOR:TVORSQD_DB1:Nsr:Initialize");
    TestThread agent([ready] {
        EXPECT_TRUE(WaitUntil([] { return !AgentStarts().empty(); }));
        SetEvent(ready);
    });
    EXPECT_EQ(OpenStatus(kPrinter, 11), TVS_OK);
    EXPECT_EQ(AgentStarts(), "/S\n");
}

TEST(PrinterList, GrowsAndKeepsItsNumbers) {
    const Product product;
    const TvsManager first = OpenPrinter();
    AddPrinter("Back office", kModel);
    AddPrinter("front desk", kModel); // another printer than "Front desk"
    EXPECT_EQ(RecordOf(OpenPrinter(2, "Back office"))->printerIndex, 2u);
    EXPECT_EQ(RecordOf(OpenPrinter(2, "front desk"))->printerIndex, 3u);
    PrinterListEntry second = Entry(2, "Back office");
    std::strcpy(second.driverName, kModel.c_str());
    const std::vector<PrinterListEntry> list = ReadPrinterList(first);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(std::memcmp(&list[1], &second, sizeof second), 0);

    const DatabaseHandle master = RecordOf(first)->masterDatabase.handle;
    WriteList(master, ListOf({Entry(1, kPrinter), Entry(5, "A"), Entry(3, "B")}));
    AddPrinter("New", kModel);
    EXPECT_EQ(RecordOf(OpenPrinter(2, "New"))->printerIndex, 6u);
    EXPECT_STREQ(ReadPrinterList(first)[3].databaseName, "TVORSQD_DB6");

    // What the list says of the driver stands over the registry.
    PrinterListEntry named = Entry(1, kPrinter);
    std::strcpy(named.driverName, "Listed Driver");
    WriteList(master, ListOf({named}));
    EXPECT_STREQ(RecordOf(OpenPrinter())->driverName, "Listed Driver");
}

TEST(PrinterList, DamagedListsRefuseTheOpenAndStayAsTheyAre) {
    const Product product;
    const TvsManager opened = OpenPrinter();
    const DatabaseHandle master = RecordOf(opened)->masterDatabase.handle;
    AddPrinter("New", kModel);
    Bytes countTooHigh = ListOf({Entry(1, kPrinter)});
    countTooHigh[4] = 2;
    Bytes countHuge = countTooHigh;
    std::memset(countHuge.data() + 4, 0xFF, 4);
    Bytes endlessName = ListOf({Entry(1, kPrinter)});
    std::memset(endlessName.data() + 8 + 268, 'x', 32); // databaseName
    for (const Bytes& list : {ListOf({}), Bytes(559), countTooHigh, countHuge, endlessName}) {
        WriteList(master, list);
        EXPECT_EQ(OpenStatus(kPrinter, 6), TVS_E_UNAVAILABLE);
        DWORD size = 0;
        Bytes now(list.size());
        ReadVariable(master, "PrinterDatabase", now.data(), static_cast<DWORD>(now.size()), &size);
        EXPECT_EQ(now, list);
    }
    // A driver without an end is one that the list does not know: the registry does.
    PrinterListEntry endless = Entry(1, kPrinter);
    std::memset(endless.driverName, 'x', sizeof endless.driverName);
    WriteList(master, ListOf({endless}));
    const TvsManager unknown = OpenPrinter();
    ASSERT_NE(unknown, 0u);
    EXPECT_STREQ(RecordOf(unknown)->driverName, kModel.c_str());
    // No number is left; an entry that is no text is nobody's, and no harm to others.
    WriteList(master, ListOf({Entry(0xFFFFFFFF, "Last")}));
    EXPECT_EQ(OpenStatus("New", 2), TVS_E_UNAVAILABLE);
    PrinterListEntry nameless = Entry(4, "");
    std::memset(nameless.printerName, 'x', sizeof nameless.printerName);
    WriteList(master, ListOf({nameless, Entry(1, kPrinter)}));
    EXPECT_EQ(RecordOf(OpenPrinter())->printerIndex, 1u);
    EXPECT_EQ(RecordOf(OpenPrinter(2, "New"))->printerIndex, 5u);
}

TEST(PrinterList, OwnershipIsTakenAndGivenBack) {
    const Product product;
    const TvsManager reader = OpenPrinter();
    EXPECT_EQ(KindMask() & 0x20, 0u);
    const DWORD self = GetCurrentProcessId();
    const auto owner = [&] { return ReadPrinterList(reader)[0].ownerProcessId; };
    for (int round = 0; round < 2; ++round) {
        const TvsManager first = OpenPrinter(6);
        EXPECT_EQ(owner(), self);
        EXPECT_NE(RecordOf(first)->flags & ManagerOwnsPrinter, 0u);
        EXPECT_EQ(CloseManager(first), TVS_OK);
        EXPECT_EQ(owner(), 0u);
    }

    // A printer of another process: known to be owned, not taken over, not given back.
    WriteList(RecordOf(reader)->masterDatabase.handle, ListOf({Entry(1, kPrinter, self + 1)}));
    RemoveKindBits(0x20);
    const TvsManager second = OpenPrinter(6);
    EXPECT_EQ(RecordOf(second)->ownerProcessId, self + 1);
    EXPECT_EQ(RecordOf(second)->flags & ManagerOwnsPrinter, 0u);
    EXPECT_NE(KindMask() & 0x20, 0u);
    EXPECT_EQ(CloseManager(second), TVS_OK);
    EXPECT_EQ(owner(), self + 1);

    // An open that fails later gives it back too.
    WriteList(RecordOf(reader)->masterDatabase.handle, ListOf({Entry(1, kPrinter)}));
    EXPECT_EQ(OpenManagerExA(kPrinter.c_str(), "u", 6, nullptr), TVS_E_UNAVAILABLE);
    EXPECT_EQ(owner(), 0u);
    PrinterListEntry broken = Entry(1, kPrinter);
    std::strcpy(broken.databaseName, "a\\b"); // no database has such a name
    WriteList(RecordOf(reader)->masterDatabase.handle, ListOf({broken}));
    EXPECT_EQ(OpenStatus(kPrinter, 6), TVS_E_UNAVAILABLE);
    EXPECT_EQ(owner(), 0u);
}

TEST(Closing, TheManagerThatTerminatesWaitsForTheOthers) {
    const Product product;
    g_timings.terminationPoll = 1;
    const TvsManager terminating = OpenPrinter();
    EXPECT_EQ(WriteVariable(RecordOf(terminating)->printerDatabase, "TerminateManager", "\1\0\0", 4), Answer::Done);
    EXPECT_EQ(CloseManager(OpenPrinter()), TVS_OK); // one without the flag does not wait
    const TvsManager other = OpenPrinter();
    {
        const ManagerLockHold lock;
        FindManager(terminating)->flags |= ManagerTerminating;
    }
    std::atomic<bool> closed{false};
    {
        g_timings.terminationPolls = 0xFFFFFFFF;
        TestThread closer([&] {
            EXPECT_EQ(CloseManager(terminating), TVS_OK);
            closed = true;
        });
        PauseMs(50);
        EXPECT_FALSE(closed);
        EXPECT_EQ(CloseManager(other), TVS_OK);
    }
    EXPECT_TRUE(closed);
}

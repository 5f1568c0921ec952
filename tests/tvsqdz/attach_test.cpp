// Attach and detach, and the state of the process and the machine.
#include "base/memory.h"
#include "base/system.h"
#include "base/timings.h"
#include "machine.h"
#include "machine/process_state.h"
#include "private_machine.h"
#include "wide_literal.h"

#include <filesystem>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

namespace {

constexpr const char* kProductKeyName = "SOFTWARE\\Tavik\\Oriel";

// What an inert library answers; nothing of it may be touched.
void ExpectInert() {
    TvsManager manager = 0;
    uint32_t size = 5;
    int32_t result = 0;
    SYSTEMTIME time;
    EXPECT_EQ(OpenManagerExA("Front desk", nullptr, 13, &manager), TVS_E_UNAVAILABLE);
    EXPECT_EQ(OpenManagerW(WIDE("Front desk"), nullptr, &manager), TVS_E_UNAVAILABLE);
    EXPECT_EQ(CloseManager(1), TVS_E_HANDLE);
    EXPECT_EQ(GetPrinterStatusA(1, "JobStatus", &size, 4, &size), TVS_E_HANDLE);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(GetPrinterStatusInfoA(1, "JobStatus", &time), TVS_E_HANDLE);
    EXPECT_EQ(GetPrinterStatusInfoW(1, WIDE("JobStatus"), &time), TVS_E_HANDLE);
    EXPECT_EQ(UpdatePrinterStatusA(1, "JobStatus", &size, 4), TVS_E_HANDLE);
    EXPECT_EQ(ResSetPrinterStatus(1, 1, &result), TVS_E_HANDLE);
}

// Says the counters whenever it is told something; "open" opens a manager of the kind given, "detach" detaches.
CHILD_PROCESS(CountsProcesses) {
    auto library = std::make_unique<Library>();
    const auto say = [&] { child.Say(std::to_string(ProcessCount()) + " " + std::to_string(KindMask())); };
    say();
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear()) {
        if (line == "detach") {
            library.reset();
            child.Say("detached");
            continue;
        }
        if (line != "look") OpenPrinter(static_cast<uint32_t>(std::stoi(line)));
        say();
    }
    return testing::Test::HasFailure();
}

CHILD_PROCESS(TellsWhetherOwn) {
    child.Say(IsOwnProcess() ? "own" : "foreign");
    return 0;
}

// As a copy under another name, in a directory whose name ends in a backslash's byte in some code pages.
std::string RunCopy(const std::string& name) {
    const std::string copy = PrivateDirectory() + "/copies/" + name;
    std::filesystem::create_directory(PrivateDirectory() + "/copies");
    std::filesystem::copy_file(OwnProgram(), copy);
    ProgramResult result = RunProgram(copy, {"--child=TellsWhetherOwn"});
    std::filesystem::remove(copy);
    return result.output.substr(0, result.output.find('\n'));
}

} // namespace

TEST(Attach, WithoutTheProductTheLibraryIsInert) {
    const auto attach = [] { return DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr); };
    EXPECT_FALSE(attach()); // no key
    DllMain(nullptr, DLL_PROCESS_DETACH, nullptr);
    ExpectInert();
    EXPECT_EQ(g_heap, nullptr);
    EXPECT_EQ(g_sharedCounters, nullptr);
    SetRegistryText(kProductKeyName, "Other", "value");
    EXPECT_FALSE(attach()); // no value
    SetRegistryText(kProductKeyName, "DIRPATH", std::string(300, 'x'));
    EXPECT_FALSE(attach()); // no directory is as long
    ExpectInert();

    // A directory without its backslash names another executable: the library loads, and every open fails.
    InstallProduct();
    std::string directory = InstallDirectory();
    directory.pop_back();
    SetRegistryText(kProductKeyName, "DIRPATH", directory);
    ASSERT_TRUE(attach());
    EXPECT_FALSE(g_installed);
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE);
    EXPECT_EQ(OpenStatus(kPrinter, 13), TVS_E_UNAVAILABLE);
    DllMain(nullptr, DLL_PROCESS_DETACH, nullptr);
    ExpectInert();

    // A text that did not bring its NUL is one all the same.
    Bytes unterminated = BytesOf(InstallDirectory());
    unterminated.pop_back();
    SetRegistryValue(kProductKeyName, "DIRPATH", REG_SZ, unterminated);
    ASSERT_TRUE(attach());
    EXPECT_TRUE(g_installed);
    EXPECT_EQ(g_variableCount, 57u);
    DllMain(nullptr, DLL_THREAD_ATTACH, nullptr);
    DllMain(nullptr, DLL_PROCESS_DETACH, nullptr);
    DllMain(nullptr, DLL_PROCESS_DETACH, nullptr);
    ExpectInert();
}

TEST(Attach, CountersAreTheMachines) {
    SetUpProduct();
    Service service;
    TestProcess first("CountsProcesses");
    EXPECT_EQ(first.Hear(), "1 0");
    TestProcess second("CountsProcesses");
    EXPECT_EQ(second.Hear(), "2 0");
    const auto told = [](TestProcess& process, const std::string& line) {
        process.Tell(line);
        return process.Hear();
    };
    EXPECT_EQ(told(first, "4"), "2 8");
    EXPECT_EQ(told(second, "12"), "2 8"); // shares the bit of kind 4
    EXPECT_EQ(told(second, "6"), "2 40");
    EXPECT_EQ(told(first, "0"), "2 40"); // kind 0 has no bit
    // The first takes its bits along, though the second still has a manager of that kind.
    EXPECT_EQ(told(first, "detach"), "detached");
    EXPECT_EQ(told(second, "look"), "1 32");
    first.CloseInput();
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(told(second, "2"), "1 34");
    second.Kill();
    // Nobody has them any more: they begin anew.
    TestProcess third("CountsProcesses");
    EXPECT_EQ(third.Hear(), "1 0");
}

TEST(Attach, DetachClosesWhatIsOpen) {
    SetUpProduct();
    Service service;
    TvsManager managers[3];
    {
        Library library;
        for (TvsManager& manager : managers)
            manager = OpenPrinter(6);
        EXPECT_EQ(g_openManagerCount, 3u);
    }
    EXPECT_EQ(g_openManagerCount, 0u);
    for (TvsManager manager : managers)
        EXPECT_EQ(CloseManager(manager), TVS_E_HANDLE);
    // The owner was given up with them: another process may become it.
    Library again;
    EXPECT_EQ(RecordOf(OpenPrinter(2))->ownerProcessId, 0u);
}

// At the end of a process other threads may be in a call that waits for something that will not come.
TEST(Attach, DetachLeavesACallInProgressWhatItUses) {
    Product::SetUp setUp;
    Service service;
    g_timings.detachBound = 100;
    auto library = std::make_unique<Library>();
    const TvsManager manager = OpenPrinter();
    const HANDLE held = OpenMutexA(SYNCHRONIZE, FALSE, "Global\\TVORSQD:Mutex:DabaBase");
    ASSERT_EQ(WaitForSingleObject(held, 0), DWORD{WAIT_OBJECT_0});
    std::atomic<int32_t> status{1};
    SYSTEMTIME time = {};
    {
        TestThread reader([&] { status = GetPrinterStatusInfoA(manager, "JobStatus", &time); });
        ManagerRecord* record = RecordOf(manager);
        ASSERT_TRUE(WaitUntil([&] { return InterlockedOr(&record->references, 0) >= 2; }));
        library.reset();
        EXPECT_EQ(status, 1);
        ReleaseMutex(held);
    }
    EXPECT_EQ(status, TVS_OK);
    EXPECT_NE(time.wYear, 0);
    EXPECT_EQ(GetPrinterStatusInfoA(manager, "JobStatus", &time), TVS_E_HANDLE);
}

TEST(OwnProcess, IsKnownByTheNameOfItsExecutable) {
    struct Row {
        const char* name;
        const char* answer;
    };
    for (const Row& row : {Row{"tvrmm9.exe", "own"}, Row{"TVORSN.EXE", "own"}, Row{"TvPilN.exe", "own"},
                           Row{"TVRMM9.EXE.bak", "foreign"}, Row{"xTVORSN.EXE", "foreign"}, Row{"TVORSN", "foreign"}})
        EXPECT_EQ(RunCopy(row.name), row.answer) << row.name;
}

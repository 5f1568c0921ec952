// Attach and detach, and the state of the process and the machine.
#include "base/memory.h"
#include "base/system.h"
#include "base/timings.h"
#include "machine.h"
#include "machine/process_state.h"
#include "memory_kit.h"

#include <filesystem>
#include <unistd.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

namespace {

constexpr const char* kProductKeyName = "SOFTWARE\\Tavik\\Oriel";

// Detaches, again too, and asks what nothing of an inert library may touch.
void ExpectInertOnceDetached() {
    TvsManager manager = 0;
    uint32_t size = 5;
    DllMain(nullptr, DLL_PROCESS_DETACH, nullptr);
    DllMain(nullptr, DLL_PROCESS_DETACH, nullptr);
    EXPECT_EQ(OpenManagerExA("Front desk", nullptr, 13, &manager), TVS_E_UNAVAILABLE);
    EXPECT_EQ(CloseManager(1), TVS_E_HANDLE);
    EXPECT_EQ(GetPrinterStatusA(1, "JobStatus", &size, 4, &size), TVS_E_HANDLE);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(g_heap, nullptr);
    EXPECT_EQ(g_sharedCounters, nullptr);
}

// Answers the counters; a number opens a manager of that kind first, "detach" detaches.
CHILD_PROCESS(CountsProcesses) {
    auto library = std::make_unique<Library>();
    for (std::string line = "look"; !line.empty(); line = child.Hear()) {
        if (line == "detach") library.reset();
        if (std::isdigit(line[0])) OpenPrinter(static_cast<uint32_t>(std::stoi(line)));
        child.Say(library ? std::to_string(ProcessCount()) + " " + std::to_string(KindMask()) : "detached");
    }
    return testing::Test::HasFailure();
}

CHILD_PROCESS(TellsWhetherOwn) {
    return IsOwnProcess() ? 0 : 1;
}

} // namespace

TEST(Attach, WithoutTheProductTheLibraryIsInert) {
    EXPECT_FALSE(DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr)); // no key
    ExpectInertOnceDetached();
    SetRegistryText(kProductKeyName, "DIRPATH", std::string(300, 'x'));
    EXPECT_FALSE(DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr)); // no directory is as long
    ExpectInertOnceDetached();
    // A directory without its backslash names another executable: the library loads, and every open fails.
    InstallProduct();
    std::string directory = InstallDirectory();
    directory.pop_back();
    SetRegistryText(kProductKeyName, "DIRPATH", directory);
    ASSERT_TRUE(DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr));
    EXPECT_FALSE(g_installed);
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE);
    DllMain(nullptr, DLL_PROCESS_DETACH, nullptr);
    // A text that did not bring its NUL is one all the same.
    SetRegistryValue(kProductKeyName, "DIRPATH", REG_SZ, Text(InstallDirectory()));
    ASSERT_TRUE(DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr));
    EXPECT_TRUE(g_installed);
    EXPECT_EQ(g_variableCount, 57u);
    DllMain(nullptr, DLL_THREAD_ATTACH, nullptr);
    ExpectInertOnceDetached();
}

TEST(Attach, CountersAreTheMachines) {
    SetUpProduct();
    const Service service;
    TestProcess first("CountsProcesses");
    EXPECT_EQ(first.Hear(), "1 0");
    TestProcess second("CountsProcesses");
    EXPECT_EQ(second.Hear(), "2 0");
    EXPECT_EQ(first.Ask("4"), "2 8");
    EXPECT_EQ(second.Ask("12"), "2 8"); // shares the bit of kind 4
    EXPECT_EQ(second.Ask("6"), "2 40");
    // The first takes its bits along, though the second still has a manager of that kind.
    EXPECT_EQ(first.Ask("detach"), "detached");
    EXPECT_EQ(second.Ask("look"), "1 32");
    first.End("");
    EXPECT_EQ(second.Ask("2"), "1 34");
    second.Kill();
    // Nobody has them any more: they begin anew.
    TestProcess third("CountsProcesses");
    EXPECT_EQ(third.Hear(), "1 0");
}

// At the end of a process other threads may be in a call that waits for something that will not come.
TEST(Attach, DetachLeavesACallInProgressWhatItUses) {
    SetUpProduct();
    const Service service;
    g_timings.detachBound = 100;
    auto library = std::make_unique<Library>();
    const TvsManager manager = OpenPrinter();
    ManagerRecord* record = RecordOf(manager);
    const HANDLE held = OpenMutexA(SYNCHRONIZE, FALSE, "Global\\TVORSQD:Mutex:DabaBase");
    ASSERT_TRUE(IsSet(held, 0));
    std::atomic<int32_t> status{1};
    uint32_t count = 7;
    uint32_t size = 0;
    const auto read = [&] { return GetPrinterStatusA(manager, "PrintingMyJob", &count, sizeof count, &size); };
    {
        const TestThread reader([&] { status = read(); });
        ASSERT_TRUE(WaitUntil([&] { return InterlockedOr(&record->references, 0) >= 2; }));
        library.reset();
        EXPECT_EQ(status, 1);
        ReleaseMutex(held);
    }
    EXPECT_EQ(status, TVS_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(read(), TVS_E_HANDLE);
}

// Whatever the threads of its parent were doing, a fork child has nothing of it, and is a process like any other.
TEST(Attach, AForkChildOpensForItself) {
    SetUpProduct();
    const Service service;
    const Library library;
    const TvsManager manager = OpenPrinter(6);
    const HANDLE told = NewEvent();
    TvsRegistration registration = 0;
    ASSERT_EQ(SetNotificationEventA(manager, "JobStatus", told, &registration), TVS_OK);
    EXPECT_EQ(NumberOf(manager, "ModelNumber"), 7u);
    const HANDLE forked = NewEvent(true);
    std::atomic<bool> holds = false;
    const TestThread holder([&] {
        const ManagerLockHold lock;
        holds = true;
        IsSet(forked);
    });
    ASSERT_TRUE(WaitUntil([&] { return holds.load(); }));
    const int failures = RunForked([&] {
        alarm(20); // ends it when it hangs
        SYSTEMTIME time;
        EXPECT_EQ(Read(manager, "ModelNumber", 4).status, TVS_E_HANDLE);
        EXPECT_EQ(GetPrinterStatusInfoA(manager, "ModelNumber", &time), TVS_E_HANDLE);
        EXPECT_EQ(KillNotificationEvent(manager, registration), TVS_E_HANDLE);
        EXPECT_EQ(CloseManager(manager), TVS_E_HANDLE);
        TvsManager own = 0;
        for (int round = 0; round < 2; ++round) {
            own = OpenPrinter(6);
            EXPECT_EQ(RecordOf(own)->ownerProcessId, static_cast<DWORD>(getppid()));
            EXPECT_EQ(NumberOf(own, "ModelNumber"), 7u);
            const HANDLE event = NewEvent();
            TvsRegistration mine = 0;
            EXPECT_EQ(SetNotificationEventA(own, "JobStatus", event, &mine), TVS_OK);
            EXPECT_EQ(Update(own, "JobStatus", Number(5 + static_cast<uint32_t>(round))), TVS_OK);
            EXPECT_TRUE(IsSet(event));
            EXPECT_EQ(ProcessCount(), 2u);
            if (round == 0) {
                EXPECT_EQ(CloseManager(own), TVS_OK);
            }
        }
        EXPECT_EQ(RunForked([&] { return CloseManager(own) == TVS_E_HANDLE ? 0 : 1; }), 0) << "nor has its own child";
        DetachProcess();
        EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    SetEvent(forked);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(ProcessCount(), 1u);
    EXPECT_TRUE(IsSet(told));
    EXPECT_EQ(NumberOf(manager, "JobStatus"), 6u);
    EXPECT_EQ(RecordOf(OpenPrinter(2))->ownerProcessId, GetCurrentProcessId());
}

TEST(OwnProcess, IsKnownByTheNameOfItsExecutable) {
    for (const std::string name : {"tvrmm9.exe", "TVORSN.EXE", "TVRMM9.EXE.bak", "xTVORSN.EXE"}) {
        const std::string copy = PrivateDirectory() + "/" + name;
        std::filesystem::copy_file(OwnProgram(), copy);
        EXPECT_EQ(RunProgram(copy, {"--child=TellsWhetherOwn"}).exitCode, name.size() > 10) << name;
        std::filesystem::remove(copy);
    }
}

// Opens of many processes at once, and of those that die in the middle.
#include "base/timings.h"
#include "machine.h"
#include "machine/status_service.h"
#include "product/object_names.h"

namespace {

using OpeningProcesses = Opened;

// Opens a new printer when told, says its number, and closes when told.
CHILD_PROCESS(OpensWhenTold) {
    const Library library;
    child.Say("ready");
    child.Hear();
    const TvsManager manager = OpenPrinter(6, child.arguments[0]);
    const ManagerRecord* record = RecordOf(manager);
    child.Say(std::to_string(record->printerIndex) + ((record->flags & ManagerOwnsPrinter) != 0 ? " owner" : " guest"));
    child.Hear();
    return CloseManager(manager);
}

CHILD_PROCESS(HoldsTheDatabaseMutex) {
    const HANDLE mutex = OpenMutexA(SYNCHRONIZE, FALSE, "Global\\TVORSQD:Mutex:DabaBase");
    child.Say(IsSet(mutex, INFINITE) ? "holds" : "does not");
    child.Hear();
    return 0;
}

// Creates a database and leaves it unfinished; "finish" finishes it, "close" closes it, anything else ends.
CHILD_PROCESS(CreatesADatabase) {
    const Library library;
    DatabaseHandle handle = 0;
    child.Say(std::to_string(static_cast<int>(CreateDatabase(child.arguments[0].c_str(), &handle))));
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear())
        child.Say(std::to_string(
            static_cast<int>(line == "finish" ? EndDatabaseInitialization(handle) : CloseDatabase(handle))));
    return 0;
}

} // namespace

TEST_F(OpeningProcesses, ManyOpenTheSameNewPrinterAtOnce) {
    AddPrinter("New", kModel);
    std::vector<TestProcess> processes;
    for (int i = 0; i < 20; ++i)
        processes.emplace_back("OpensWhenTold", std::vector<std::string>{"New"});
    for (TestProcess& process : processes)
        EXPECT_EQ(process.Hear(), "ready");
    for (TestProcess& process : processes)
        process.Tell("open");
    int owners = 0;
    for (TestProcess& process : processes) {
        const std::string said = process.Hear(60000);
        EXPECT_TRUE(said.starts_with("2 ")) << said;
        owners += said.ends_with("owner");
    }
    EXPECT_EQ(owners, 1);
}

// Neither a holder of the database mutex that was stopped nor a service that was: each call ends, and works again
// afterwards.
TEST_F(OpeningProcesses, WhoStandsStillHoldsNobodyUpForGood) {
    NeedsTheLayer("Windows cannot stop a process, nor bound a local call");
    const TvsManager owner = OpenPrinter(6);
    const auto update = [&] { return Update(owner, "PrinterBinConfig", {1, 2, 3, 4}); };
    ASSERT_EQ(update(), TVS_OK);
    g_timings.databaseLockBound = 50;
    {
        TestProcess holder("HoldsTheDatabaseMutex");
        EXPECT_EQ(holder.Hear(), "holds");
        EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE);
        EXPECT_EQ(update(), TVS_E_NOT_READY);
        EXPECT_EQ(Read(manager, "PrinterStatus", 12).status, TVS_OK) << "what is published needs no lock";
        const TestThread closer([&] { EXPECT_EQ(CloseManager(owner), TVS_OK); });
        EXPECT_TRUE(IsSet(closer.Handle(), 5000));
    }
    g_timings.databaseLockBound = 30000;
    const TvsManager next = OpenPrinter(6);
    EXPECT_NE(RecordOf(next)->flags & ManagerOwnsPrinter, 0u) << "the one that could not release it has no event";
    LimitAnswers(50);
    service.process.Stop();
    EXPECT_EQ(Update(manager, "JobStatus", Number(3)), RPC_S_CALL_CANCELLED);
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE);
    service.process.Continue();
    LimitAnswers(kAnswerBound);
    EXPECT_EQ(Update(manager, "JobStatus", Number(4)), TVS_OK);
    EXPECT_EQ(Read(manager, "JobStatus", 4).bytes, Number(4));
    EXPECT_EQ(CloseManager(next), TVS_OK);
}

TEST_F(OpeningProcesses, AKilledHolderOfTheMutexHoldsNobodyUp) {
    for (int round = 0; round < 3; ++round) {
        TestProcess holder("HoldsTheDatabaseMutex");
        EXPECT_EQ(holder.Hear(), "holds");
        const TestThread opener([&] { EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_OK); });
        EXPECT_FALSE(IsSet(opener.Handle(), 20));
        holder.KillOnly();
        // The promise is 100 ms. What a busy machine adds is not its fault.
        EXPECT_TRUE(IsSet(opener.Handle(), 2000)) << "round " << round;
    }
}

TEST_F(OpeningProcesses, AnUnfinishedDatabaseIsWaitedForOrMadeAnew) {
    // ending: what its creator does.
    // isOurs: it is ours to initialise.
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"Finished", "finish", false}, {"Closed", "close", true}, {"Killed", nullptr, true}};
    for (const auto& [database, ending, isOurs] : rows) {
        SCOPED_TRACE(database);
        TestProcess creator("CreatesADatabase", {database});
        EXPECT_EQ(creator.Hear(), "0");
        EnteredDatabase entered = {};
        {
            const TestThread opener(
                [&, &database = database] { EXPECT_EQ(CreateOrOpenDatabase(database, &entered), Answer::Done); });
            EXPECT_FALSE(IsSet(opener.Handle(), 20));
            ending == nullptr ? creator.Kill() : creator.Tell(ending);
        }
        EXPECT_EQ(entered.created, isOurs);
        EXPECT_NE(entered.handle, 0u);
    }
    // A creator that lives and never comes to an end is given up at last.
    g_timings.initialisedBound = 100;
    CloseManager(manager);
    RestartService();
    TestProcess creator("CreatesADatabase", {"TVORSQD_DB"});
    EXPECT_EQ(creator.Hear(), "0");
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_E_UNAVAILABLE);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_TIMEOUT});
    creator.Kill();
    EXPECT_EQ(OpenStatus(kPrinter, 2), TVS_OK);
}

// A close while other threads are in calls on the same manager: each call gets its value or the handle's end.
TEST_F(OpeningProcesses, CloseDuringCallsHarmsNobody) {
    for (int round = 0; round < 20; ++round) {
        TvsManager shared = 0;
        TestThread([&] { shared = OpenPrinter(); }); // by a thread that has ended
        std::atomic<int> reads{0};
        std::vector<std::unique_ptr<TestThread>> readers;
        for (int i = 0; i < 4; ++i)
            readers.push_back(std::make_unique<TestThread>([&] {
                for (int32_t status = TVS_OK; status != TVS_E_HANDLE; ++reads) {
                    const ReadResult read = Read(shared, "ModelNumber", 4);
                    status = read.status;
                    EXPECT_TRUE(status == TVS_E_HANDLE || (status == TVS_OK && read.bytes == Number(7)));
                }
            }));
        ASSERT_TRUE(WaitUntil([&] { return reads > 8; }));
        EXPECT_EQ(CloseManager(shared), TVS_OK);
    }
    EXPECT_EQ(g_openManagerCount, 1u);
}

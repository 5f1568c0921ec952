// Managers that outlive the status database service: killed, and started anew, under calls of every kind.
#include "base/timings.h"
#include "notification_kit.h"
#include "printer_side.h"
#include "product/guards.h"
#include "product/object_names.h"
#include "product/printer_list.h"
#include "wide_literal.h"

namespace {

constexpr int32_t kUnavailable = RPC_S_SERVER_UNAVAILABLE;
const std::string kOther = "Back office";

struct ServiceRestart : OpenedReady {
    ServiceRestart() { AddPrinter(kOther, kModel); }
    DatabaseHandle Handle() const { return RecordOf(manager)->printerDatabase.handle; }
};

product::PrinterListEntry ListEntry(const std::string& printer) {
    DatabaseHandle master = 0;
    EXPECT_EQ(OpenDatabase(product::kMasterDatabase, &master), Answer::Done);
    const Bytes list = StoredBytes(master, product::kPrinterListVariable);
    CloseDatabase(master);
    for (size_t at = 8; at < list.size(); at += sizeof(product::PrinterListEntry)) {
        const auto* entry = reinterpret_cast<const product::PrinterListEntry*>(&list[at]);
        if (entry->printerName == printer) return *entry;
    }
    ADD_FAILURE() << printer << " is not in the list";
    return {};
}

// Handles that all clients have of a printer's database.
DWORD HandlesOf(const std::string& database) {
    DatabaseHandle handle = 0;
    EXPECT_EQ(OpenDatabase(database.c_str(), &handle), Answer::Done);
    product::DatabaseInfo info;
    EXPECT_EQ(GetDatabaseInfo(handle, &info), Answer::Done);
    CloseDatabase(handle);
    return info.openHandles - 1;
}

// Reads on four threads through two managers until it is told to stop. Says how many reads had an answer that none may
// have: while the service is away, and while it goes, calls fail with codes of the run-time.
CHILD_PROCESS(ReadsAcrossRestarts) {
    const Library library;
    const TvsManager managers[] = {OpenPrinter(), OpenPrinter()};
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (int i = 0; i < 4; ++i)
            threads.push_back(std::make_unique<TestThread>([&, manager = managers[i % 2]] {
                while (!stop) {
                    const int32_t status = Read(manager, "ModelNumber", 4).status;
                    wrong += status != TVS_OK && status != kUnavailable && status != RPC_S_CALL_FAILED &&
                             status != RPC_S_CALL_FAILED_DNE;
                }
            }));
        child.Say("reads");
        child.Hear();
        stop = true;
    }
    child.Say(std::to_string(wrong));
    child.Hear();
    return CloseManager(managers[0]) + CloseManager(managers[1]);
}

// Opens a printer as a kind, and closes when told; the tests of relays use it too.
CHILD_PROCESS(OpensThePrinterAs) {
    const Library library;
    const TvsManager manager = OpenPrinter(static_cast<uint32_t>(std::stoul(child.arguments[1])), child.arguments[0]);
    {
        const ManagerLockHold lock; // a service that is new may change them
        child.Say((RecordOf(manager)->flags & ManagerOwnsPrinter) != 0 ? "owner" : "guest");
    }
    child.Hear();
    return CloseManager(manager);
}

} // namespace

TEST_F(ServiceRestart, AnyCallFindsTheNewService) {
    uint32_t size = 0;
    Bytes buffer(1024);
    SYSTEMTIME time;
    const auto readWide = [&](const WCHAR* variable) {
        return GetPrinterStatusW(manager, variable, buffer.data(), 1024, &size);
    };
    const struct {
        const char* call;
        std::function<int32_t()> status;
        int32_t whileDown;
        int32_t afterwards = TVS_OK;
    } rows[] = {
        {"a read", [&] { return Read(manager, "ModelNumber", 4).status; }, kUnavailable},
        // What has a wide form is converted, be it read or not: empty, and no failure.
        {"of a wide record", [&] { return readWide(WIDE("SendingJobInfo")); }, TVS_OK},
        {"of a value whose size is asked for", [&] { return Read(manager, "SpoolerQueue", 600).status; }, kUnavailable},
        {"of a queue, which nobody has made", [&] { return Read(manager, "Q", 8).status; }, kUnavailable, -5},
        {"of a write time", [&] { return GetPrinterStatusInfoA(manager, "Port", &time); }, TVS_E_UNKNOWN},
        {"an update", [&] { return Update(manager, "JobStatus", Number(3)); }, kUnavailable},
        {"of a persistent value", [&] { return Update(manager, "PageCount", Number(77)); }, kUnavailable},
        {"of a result", [&] { return ResultOf(manager, 1) == TVS_E_UNKNOWN ? TVS_OK : -999; }, TVS_OK},
        {"a direct read", [&] { return Read(manager, "DNumber", 4, GetPrinterStatusDirectA).status; }, TVS_E_NOT_NOW,
         TVS_E_NOT_NOW},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        const DatabaseHandle before = Handle();
        KillService();
        const int32_t down = row.status();
        // The first call may be the one that loses its connection.
        EXPECT_TRUE(down == row.whileDown || down == RPC_S_CALL_FAILED || down == RPC_S_CALL_FAILED_DNE) << down;
        service = Service();
        EXPECT_EQ(row.status(), row.afterwards);
        EXPECT_NE(Handle(), before);
    }
    EXPECT_EQ(NumberOf(manager, "PageCount"), 77u);
    EXPECT_EQ(NumberOf(manager, "JobStatus"), 0u) << "only what has a copy in the driver data outlives a service";
    KillService();
    EXPECT_EQ(CloseManager(manager), TVS_OK);
}

// As after the service has released what the process had open.
TEST_F(ServiceRestart, AHandleThatTheSameServiceDoesNotKnowIsOpenedAgain) {
    const DatabaseHandle handle = Handle();
    ASSERT_EQ(CloseDatabase(handle), Answer::Done);
    for (uint32_t i = 1; i <= 2; ++i)
        EXPECT_EQ(Update(manager, "ModelNumber", Number(i)), TVS_OK);
    EXPECT_NE(Handle(), handle);
    EXPECT_EQ(HandlesOf(RecordOf(manager)->databaseName), 1u);
    Registrant registrant(Form::Event, manager, "ModelNumber");
    ASSERT_EQ(CloseDatabase(Handle()), Answer::Done);
    EXPECT_EQ(Update(manager, "ModelNumber", Number(3)), TVS_OK);
    EXPECT_GT(registrant.Told(), 0);
}

TEST_F(ServiceRestart, EachManagerIsOpenedAgainOnceHoweverManyThreadsCall) {
    std::vector<TestProcess> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back("ReadsAcrossRestarts");
    for (TestProcess& reader : readers)
        EXPECT_EQ(reader.Hear(), "reads");
    for (int round = 0; round < 3; ++round) {
        RestartService();
        EXPECT_EQ(NumberOf(manager, "ModelNumber"), 7u);
        const std::string database = RecordOf(manager)->databaseName;
        EXPECT_TRUE(WaitUntil([&] { return HandlesOf(database) == 7; }));
    }
    for (TestProcess& reader : readers)
        EXPECT_EQ(reader.Ask("stop"), "0");
    for (TestProcess& reader : readers)
        reader.End();
    EXPECT_EQ(HandlesOf(RecordOf(manager)->databaseName), 1u);
}

TEST_F(ServiceRestart, APrinterKeepsItsNumberWhereItIsFree) {
    const TvsManager first = manager;
    const TvsManager second = OpenPrinter(2, kOther);
    ASSERT_STREQ(RecordOf(second)->databaseName, "TVORSQD_DB2");
    RestartService();
    EXPECT_EQ(Update(second, "ModelNumber", Number(22)), TVS_OK);
    EXPECT_EQ(Update(first, "ModelNumber", Number(11)), TVS_OK);
    // Somebody else opens the second one first, and takes the number of the first.
    RestartService();
    TestProcess opener("OpensThePrinterAs", {kOther, "2"});
    EXPECT_EQ(opener.Hear(), "guest");
    Registrant registrant(Form::Event, first, "ModelNumber");
    EXPECT_EQ(ListEntry(kOther).index, 1u);
    EXPECT_EQ(Update(second, "ModelNumber", Number(23)), TVS_OK);
    EXPECT_EQ(Update(first, "ModelNumber", Number(12)), TVS_OK);
    EXPECT_STREQ(RecordOf(first)->databaseName, "TVORSQD_DB2");
    EXPECT_STREQ(RecordOf(second)->databaseName, "TVORSQD_DB1");
    // Names of events and mutexes follow.
    EXPECT_NE(registrant.Told(), 0);
    const KernelHandle mutex(OpenMutexA(SYNCHRONIZE, FALSE, "Global\\TVORSQD:ReqMutex:TVORSQD_DB2"));
    ASSERT_TRUE(mutex);
    const MutexHold hold(mutex.Get());
    TestThread([&] { EXPECT_FALSE(IsSet(RecordOf(first)->requestMutex, 0)); });
}

TEST_F(ServiceRestart, AnOwnerIsTheOwnerAgainUnlessAnotherWasFaster) {
    g_timings.relayLook = 60000; // so that the owner's own thread comes too late
    const TvsManager owner = OpenPrinter(6);
    const TvsManager polling = OpenPrinter(4);
    const auto owns = [&] { return (RecordOf(owner)->flags & ManagerOwnsPrinter) != 0; };
    ASSERT_TRUE(owns());
    RestartService();
    EXPECT_EQ(NumberOf(polling, "CompulsivePolling"), 1u);
    EXPECT_EQ(ListEntry(kPrinter).ownerProcessId, 0u);
    EXPECT_EQ(NumberOf(owner, "ModelNumber"), 7u);
    EXPECT_EQ(ListEntry(kPrinter).ownerProcessId, GetCurrentProcessId());
    EXPECT_TRUE(owns());

    RestartService();
    TestProcess faster("OpensThePrinterAs", {kPrinter, "6"});
    EXPECT_EQ(faster.Hear(), "owner");
    EXPECT_EQ(NumberOf(owner, "ModelNumber"), 7u);
    EXPECT_FALSE(owns());
    EXPECT_EQ(CloseManager(owner), TVS_OK);
    EXPECT_EQ(ListEntry(kPrinter).ownerProcessId, faster.Id()) << "a close gives back only what is its own";
    faster.End();
    EXPECT_EQ(ListEntry(kPrinter).ownerProcessId, 0u);
}

TEST_F(ServiceRestart, RegistrationsAreToldOnceAndThenOfEveryChange) {
    g_timings.serviceLook = 60000; // the service says that it has started
    std::vector<std::unique_ptr<Registrant>> registrants;
    const std::vector<std::string> variables = {"ModelNumber", "JobStatus", "PrinterStatus"};
    // One watcher each: of two for one variable in one process, one may miss a single write.
    for (size_t i = 0; i < variables.size(); ++i)
        registrants.push_back(std::make_unique<Registrant>(kForms[i], manager, variables[i], static_cast<int>(i)));
    RestartService();
    for (size_t i = 0; i < registrants.size(); ++i)
        EXPECT_EQ(registrants[i]->Told(), 1) << variables[i] << ": nobody called, and something may have been missed";
    PauseMs(kQuietMs);
    for (size_t i = 0; i < registrants.size(); ++i)
        EXPECT_EQ(registrants[i]->Told(0), 0) << variables[i];
    for (const std::string& variable : variables)
        EXPECT_EQ(Update(manager, variable, Bytes(variable == "PrinterStatus" ? 12 : 4, 9)), TVS_OK);
    for (const auto& registrant : registrants)
        EXPECT_NE(registrant->Told(), 0);
}

TEST_F(ServiceRestart, AWatchOfTheOldServiceEndsNoneOfTheNew) {
    g_timings.serviceLook = 60000; // it sleeps, and does not come to know the new service
    Registrant old(Form::Event, manager, "ModelNumber");
    RestartService();
    EXPECT_EQ(NumberOf(manager, "ModelNumber"), 7u);
    Registrant fresh(Form::Event, manager, "ModelNumber");
    EXPECT_EQ(old.Cancel(), TVS_OK);
    EXPECT_EQ(UnwatchVariable(Handle(), "ModelNumber"), Answer::Done);
}

TEST_F(ServiceRestart, ARequestOnItsWayFailsAndTheNextIsCarriedOut) {
    g_timings.answerLook = 1000; // longer than the restart: only the handle tells that there was one
    std::atomic<int32_t> status = 0x5EE;
    {
        const PrinterSide printer(database, [](auto&, auto&) { return std::nullopt; });
        const TestThread requester([&] { status = Read(manager, "DNumber", 4, GetPrinterStatusDirectA).status; });
        ASSERT_TRUE(WaitUntil([&] { return printer.Requests() == 1; }));
        RestartService();
        EXPECT_EQ(NumberOf(manager, "ModelNumber"), 7u);
        EXPECT_EQ(Update(manager, "RWResult", Number(0)), TVS_OK); // of nobody's request
        EXPECT_TRUE(IsSet(requester.Handle()));
    }
    EXPECT_EQ(status, RPC_S_CALL_FAILED);
}

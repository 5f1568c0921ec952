// Requests of many processes at once, and of processes that die in the middle.
#include "base/timings.h"
#include "campaign.h"
#include "printer_side.h"
#include "product/object_names.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace {

// A printer side in a process: the printer's name. It serves until it is told to end, or killed.
CHILD_PROCESS(ServesAPrinter) {
    const Library library;
    const TvsManager manager = OpenPrinter(2, child.arguments[0]);
    const ManagerRecord* record = RecordOf(manager);
    const HANDLE stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const TestThread listener([&] {
        child.Hear();
        SetEvent(stop);
    });
    uint32_t reads = 0;
    ServePrinter(
        record->printerDatabase.handle, record->databaseName,
        [&](const std::string& mailbox, const std::string& text) {
            if (mailbox == "ReadRequest") StoreBytes(record->printerDatabase.handle, text, Number(++reads));
            return 0;
        },
        stop, [&] { child.Say("serves"); });
    return CloseManager(manager);
}

// One asynchronous write from its start to its result; the result, or a failure of the test.
int32_t WriteAndWait(TvsManager manager, HANDLE event, uint32_t* number) {
    ResetEvent(event);
    const uint32_t value = 7;
    int32_t status = SetReqPrinterStatusEventA(manager, "DNumber", &value, sizeof value, event, number);
    if (status != TVS_OK) return status;
    EXPECT_EQ(WaitForSingleObject(event, 60000), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(ResSetPrinterStatus(manager, *number, &status), TVS_OK);
    return status;
}

// Any operation; its status.
int32_t DoOne(TvsManager manager, HANDLE event, uint32_t choice) {
    uint32_t value = 1;
    uint32_t size = 0;
    switch (choice) {
    case 0:
        return GetPrinterStatusDirectA(manager, "DNumber", &value, sizeof value, &size);
    case 1:
        return SetPrinterStatusDirectA(manager, "DNumber", &value, sizeof value);
    case 2:
        return WriteAndWait(manager, event, &value);
    case 3:
        ResetEvent(event);
        if (const int32_t status = GetReqPrinterStatusEventA(manager, "DNumber", event); status != TVS_OK)
            return status;
        return WaitForSingleObject(event, 60000) == WAIT_OBJECT_0 ? TVS_OK : TVS_E_REQUEST_LOCK;
    case 4:
        return UpdatePrinterStatusA(manager, "JobStatus", &value, sizeof value);
    default:
        return GetPrinterStatusA(manager, "JobStatus", &value, sizeof value, &size);
    }
}

// Threads that mix operations on a printer: its name, a seed, the number of threads, operations of each (0: for ever).
// Says "mixing", and at the end how many operations did not answer TVS_OK.
CHILD_PROCESS(MixesOperations) {
    const Library library;
    const std::string printer = child.arguments[0];
    const auto seed = std::stoull(child.arguments[1]);
    const int operations = std::stoi(child.arguments[3]);
    g_timings.requestLockBound = 60000; // many wait for one printer
    std::atomic<int> failed = 0;
    child.Say("mixing");
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (int t = 0; t < std::stoi(child.arguments[2]); ++t)
            threads.push_back(std::make_unique<TestThread>([&, t] {
                std::mt19937_64 random(seed + static_cast<uint64_t>(t));
                const TvsManager manager = OpenAuthorised(printer);
                const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
                for (int i = 0; operations == 0 || i < operations; ++i)
                    failed += DoOne(manager, event, static_cast<uint32_t>(random() % 6)) != TVS_OK;
                CloseHandle(event);
                EXPECT_EQ(CloseManager(manager), TVS_OK);
            }));
        for (const auto& thread : threads)
            WaitForSingleObject(thread->Handle(), INFINITE);
    }
    child.Say(std::to_string(failed));
    return testing::Test::HasFailure();
}

std::vector<uint32_t> NumbersLeft(DatabaseHandle database) {
    const Bytes list = StoredBytes(database, "ReqResult");
    std::vector<uint32_t> numbers;
    for (size_t at = 8; at + 8 <= list.size(); at += 8) {
        uint32_t number = 0;
        std::memcpy(&number, &list[at], sizeof number);
        numbers.push_back(number);
    }
    return numbers;
}

} // namespace

TEST(RequestCampaign, ManyProcessesMixOperationsAndAllResultsAreAccountedFor) {
    const Product product;
    AddDirectVariables();
    const int operations = Rounds(12, 1500);
    const uint64_t seed = Seed();
    std::vector<TestProcess> printers;
    std::vector<TestProcess> processes;
    std::vector<TvsManager> managers;
    for (int i = 0; i < 4; ++i) {
        const std::string name = "Printer " + std::to_string(i);
        AddPrinter(name, kModel);
        managers.push_back(OpenPrinter(2, name));
        SetReady(managers.back());
        printers.emplace_back("ServesAPrinter", std::vector<std::string>{name});
        EXPECT_EQ(printers.back().Hear(), "serves");
    }
    for (int i = 0; i < 16; ++i)
        processes.emplace_back("MixesOperations",
                               std::vector<std::string>{"Printer " + std::to_string(i % 4),
                                                        std::to_string(seed + static_cast<uint64_t>(i) * 100), "4",
                                                        std::to_string(operations)});
    for (TestProcess& process : processes) {
        EXPECT_EQ(process.Hear(), "mixing");
        EXPECT_EQ(process.Hear(600000), "0");
        EXPECT_EQ(process.Wait(), 0) << process.Errors();
    }
    for (const TvsManager manager : managers)
        EXPECT_EQ(NumbersLeft(RecordOf(manager)->printerDatabase.handle), std::vector<uint32_t>());
    for (TestProcess& printer : printers) {
        printer.Tell("end");
        EXPECT_EQ(printer.Wait(), 0) << printer.Errors();
    }
}

// A requester, the printer side or the owner is killed at any moment; the survivor's requests all come to their result.
TEST(RequestCampaign, KilledProcessesHoldNobodyUpAndLoseNoResult) {
    const Product product;
    AddDirectVariables();
    g_timings.requestLockBound = 60000;
    g_timings.answerBound = 3000;
    const TvsManager manager = OpenAuthorised();
    SetReady(manager);
    std::mt19937_64 random(Seed());
    const auto start = [&](const char* what, const std::vector<std::string>& arguments) {
        TestProcess process(what, arguments);
        EXPECT_FALSE(process.Hear().empty());
        return process;
    };
    const auto startPrinter = [&] { return start("ServesAPrinter", {kPrinter}); };
    TestProcess printer = startPrinter();
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (int round = 0; round < Rounds(12, 1000); ++round) {
        SCOPED_TRACE(round);
        TestProcess requester = start("MixesOperations", {kPrinter, std::to_string(random()), "2", "0"});
        PauseMs(static_cast<int>(random() % 20));
        const bool killPrinter = random() % 3 == 0;
        const TestThread killer([&, pause = static_cast<int>(random() % 10)] {
            PauseMs(pause);
            requester.KillOnly();
            if (killPrinter) {
                printer.Kill();
                printer = startPrinter();
            }
        });
        uint32_t number = 0; // once its result is taken, another request may have it
        // What a printer side had taken when it was killed, nobody answers.
        const int32_t status = WriteAndWait(manager, event, &number);
        ASSERT_TRUE(status == TVS_OK || (killPrinter && status == TVS_E_REQUEST_LOCK)) << status;
        WaitForSingleObject(killer.Handle(), 20000);
        // What is left belongs to the dead; each once.
        std::vector<uint32_t> left = NumbersLeft(RecordOf(manager)->printerDatabase.handle);
        std::sort(left.begin(), left.end());
        EXPECT_EQ(std::adjacent_find(left.begin(), left.end()), left.end());
    }
    CloseHandle(event);
}

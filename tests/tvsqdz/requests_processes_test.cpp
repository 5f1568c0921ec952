// Requests of many processes at once, and of processes that die in the middle.
#include "base/timings.h"
#include "campaign.h"
#include "printer_side.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace {

using RequestCampaign = OpenedReady;

// A printer side in a process: the printer's name. It serves until it is told to end, or killed.
CHILD_PROCESS(ServesAPrinter) {
    const Library library;
    const TvsManager manager = OpenPrinter(2, child.arguments[0]);
    const DatabaseHandle database = RecordOf(manager)->printerDatabase.handle;
    const PrinterSide printer(database, [&](const std::string& mailbox, const std::string& text) {
        if (mailbox == "ReadRequest") StoreBytes(database, text, Number(1));
        return 0;
    });
    child.Say("serves");
    child.Hear();
    return 0;
}

// One asynchronous write from its start to its result; the result, or a failure of the test.
int32_t WriteAndWait(TvsManager manager, HANDLE event) {
    uint32_t number = 7;
    const int32_t status = SetReqPrinterStatusEventA(manager, "DNumber", &number, sizeof number, event, &number);
    if (status != TVS_OK) return status;
    EXPECT_TRUE(IsSet(event, 60000));
    return ResultOf(manager, number);
}

// Any operation; whether it failed.
bool Fails(TvsManager manager, HANDLE event, uint64_t choice) {
    uint32_t value = 1;
    uint32_t size = 0;
    switch (choice) {
    case 0:
        return GetPrinterStatusDirectA(manager, "DNumber", &value, sizeof value, &size) != TVS_OK;
    case 1:
        return SetPrinterStatusDirectA(manager, "DNumber", &value, sizeof value) != TVS_OK;
    case 2:
        return WriteAndWait(manager, event) != TVS_OK;
    default:
        return GetReqPrinterStatusEventA(manager, "DNumber", event) != TVS_OK || !IsSet(event, 60000);
    }
}

// Four threads that mix operations on a printer: its name, a seed, operations of each (0: for ever). Says "mixing", and
// at the end how many operations failed.
CHILD_PROCESS(MixesOperations) {
    const Library library;
    const auto seed = std::stoull(child.arguments[1]);
    const int operations = std::stoi(child.arguments[2]);
    g_timings.requestLockBound = 60000; // many wait for one printer
    std::atomic<int> failed = 0;
    child.Say("mixing");
    {
        std::vector<std::unique_ptr<TestThread>> threads;
        for (uint64_t t = 0; t < 4; ++t)
            threads.push_back(std::make_unique<TestThread>([&, t] {
                std::mt19937_64 random(seed + t);
                const TvsManager manager = OpenPrinter(2, child.arguments[0], kPowerfulUser);
                const HANDLE event = NewEvent();
                for (int i = 0; operations == 0 || i < operations; ++i)
                    failed += Fails(manager, event, random() % 4);
            }));
        for (const auto& thread : threads)
            IsSet(thread->Handle(), INFINITE);
    }
    child.Say(std::to_string(failed));
    return testing::Test::HasFailure();
}

// Started, and at work.
TestProcess Start(const char* what, const std::vector<std::string>& arguments) {
    TestProcess process(what, arguments);
    EXPECT_FALSE(process.Hear().empty());
    return process;
}

std::vector<uint32_t> NumbersLeft(DatabaseHandle database) {
    const Bytes list = StoredBytes(database, "ReqResult");
    std::vector<uint32_t> numbers;
    for (size_t at = 8; at + 8 <= list.size(); at += 8)
        std::memcpy(&numbers.emplace_back(), &list[at], sizeof(uint32_t));
    return numbers;
}

} // namespace

// A requester, the printer side or the owner is killed at any moment; the survivor's requests all come to their result.
TEST_F(RequestCampaign, KilledProcessesHoldNobodyUpAndLoseNoResult) {
    g_timings.requestLockBound = 60000;
    g_timings.answerBound = 1500;
    std::mt19937_64 random(Seed());
    TestProcess printer = Start("ServesAPrinter", {kPrinter});
    const HANDLE event = NewEvent();
    for (int round = 0; round < Rounds(12, 1000); ++round) {
        SCOPED_TRACE(round);
        TestProcess requester = Start("MixesOperations", {kPrinter, std::to_string(random()), "0"});
        PauseMs(static_cast<int>(random() % 20));
        const bool killPrinter = random() % 3 == 0;
        const TestThread killer([&, pause = static_cast<int>(random() % 10)] {
            PauseMs(pause);
            requester.KillOnly();
            if (!killPrinter) return;
            printer.Kill();
            printer = Start("ServesAPrinter", {kPrinter});
        });
        // What a printer side had taken when it was killed, nobody answers.
        const int32_t status = WriteAndWait(manager, event);
        ASSERT_TRUE(status == TVS_OK || (killPrinter && status == TVS_E_REQUEST_LOCK)) << status;
        IsSet(killer.Handle(), 20000);
        // What is left belongs to the dead; each once.
        std::vector<uint32_t> left = NumbersLeft(database);
        std::sort(left.begin(), left.end());
        EXPECT_EQ(std::adjacent_find(left.begin(), left.end()), left.end());
    }
    // The living leave nothing.
    StoreBytes(database, "ReqResult", Joined({Number(4), Number(0)}));
    std::vector<TestProcess> requesters;
    for (int i = 0; i < 4; ++i)
        requesters.push_back(
            Start("MixesOperations", {kPrinter, std::to_string(random()), std::to_string(Rounds(50, 3000))}));
    for (TestProcess& requester : requesters)
        EXPECT_EQ(requester.Hear(600000), "0");
    EXPECT_EQ(NumbersLeft(database), std::vector<uint32_t>());
}

// Forwarded requests, between callers, the service and a printer side that this test plays in a process of its own.
#include "printer_machine.h"

#include <atomic>
#include <cstdlib>
#include <thread>

namespace {

LONG WriteAnswer(const Database& database, DWORD id, LONG result) {
    return database.Write(kForwardAnswer, Number(id) + Number(static_cast<DWORD>(result)));
}

// What the printer side of a printer answers to a request of a kind.
LONG ResultFor(size_t printer, DWORD kind) {
    return -static_cast<LONG>(1000 * printer + kind);
}

} // namespace

// Arguments: the number of the printer; how many requests are left unanswered at first. Says "serving".
CHILD_PROCESS(ServesForwardedRequests) {
    const size_t printer = std::strtoul(child.arguments[0].c_str(), nullptr, 10);
    unsigned long silent = std::strtoul(child.arguments[1].c_str(), nullptr, 10);
    Database database;
    if (database.Open(DatabaseOf(printer)) != kDone) return 1;
    for (const char* name : {kForwardMailbox, kForwardAnswer})
        database.Add(name, kTypeRecord, Bytes(8)); // or it is there
    if (database.Watch(kForwardMailbox, kEveryWrite) != kDone) return 1;
    // The emulated system is one with Terminal Services.
    const KernelName event = VariableEventName(true, DatabaseOf(printer), kForwardMailbox, VariableSignal::Updated);
    const HANDLE posted = OpenEventA(SYNCHRONIZE, FALSE, event.text);
    child.Say("serving");
    for (DWORD last = 0;;) {
        const Bytes mailbox = database.Value(kForwardMailbox);
        const DWORD id = U32At(mailbox, 0), kind = U32At(mailbox, 4);
        if (id == last || id == 0) {
            WaitForSingleObject(posted, 20); // a request may have come between the look and the wait
            continue;
        }
        if (kind == kEndRequest) return 0;
        if (silent > 0) {
            --silent;
            child.Say("silent");
        } else {
            // Answers to other requests, and ones of no form, are not taken for this one's.
            for (const DWORD other : {last, id + 1, DWORD{0}})
                WriteAnswer(database, other, 77);
            database.Set(kForwardAnswer, id);
            database.Write(kForwardAnswer, Bytes{});
            if (WriteAnswer(database, id, ResultFor(printer, kind)) != kDone) return 0;
            WriteAnswer(database, id, 80);
        }
        last = id;
    }
}

static TestProcess PrinterSide(size_t printer, int silent = 0) {
    TestProcess side("ServesForwardedRequests", {std::to_string(printer), std::to_string(silent)});
    EXPECT_EQ(side.Hear(), "serving");
    return side;
}

TEST(Forwarding, WithoutAPrinterSideIsAnsweredAtOnce) {
    const PrinterMachine machine;
    for (const char* bad : {"", "ReadRequest:", "readrequest:p", "ReadRequest", "Other:p"})
        EXPECT_EQ(ForwardRequest(bad), kBadArgument) << bad;
    EXPECT_EQ(ForwardRequest("Refresh:" + std::string(kRequestTextMax, 'p')), kBadArgument);
    EXPECT_EQ(ForwardRequest("Refresh:Unknown"), kNoPrinterSide);
    const std::string request = "Refresh:" + kPrinters[1];
    EXPECT_EQ(ForwardRequest(request), kNoPrinterSide) << "no mailbox";

    const Database& database = machine.databases[1];
    EXPECT_EQ(database.Add(kForwardMailbox, kTypeRecord, Bytes(12)), kBadArgument);
    EXPECT_EQ(database.Add(kForwardMailbox, kTypeRecord, {1, 0, 0, 0, 1, 0, 0, 0}), kBadArgument);
    EXPECT_EQ(database.Add(kForwardMailbox, kTypeRecord, Bytes(8)), kDone);
    EXPECT_EQ(database.Write(kForwardMailbox, Bytes(8)), kNotWritable);
    EXPECT_EQ(ForwardRequest(request), kNoPrinterSide) << "nobody watches it";

    const TestProcess side = PrinterSide(1);
    EXPECT_EQ(ForwardRequest(request), ResultFor(1, kRefreshRequest));
    EXPECT_EQ(database.NumberIn(kForwardMailbox), 0u) << "and the mailbox is empty again";
    // Lists that lie about their entries, end within one, or have no form at all.
    const Bytes good = PrinterList(2, 2);
    for (const Bytes& list : {PrinterList(2, 5000), PrinterList(2, 0), Bytes(good.begin(), good.end() - 1), Bytes{},
                              Bytes(600, 0xFF), Bytes(9)}) {
        ASSERT_EQ(machine.master.Write("PrinterDatabase", list), kDone);
        const bool listed = list.size() == good.size() && list[4] != 0;
        EXPECT_EQ(ForwardRequest(request), listed ? ResultFor(1, kRefreshRequest) : kNoPrinterSide) << list.size();
    }
}

TEST(Forwarding, ManyCallersEachGetTheirOwnAnswer) {
    const PrinterMachine machine;
    std::vector<TestProcess> sides;
    for (size_t i = 0; i < std::size(kPrinters); ++i)
        sides.push_back(PrinterSide(i));
    EXPECT_EQ(machine.databases[2].Set("TerminateManager", 0), kDone) << "which asks nobody to end";
    const std::pair<const char*, DWORD> kinds[] = {
        {"ReadRequest:", kReadRequest}, {"WriteRequest:", kWriteRequest}, {"Refresh:", kRefreshRequest}};
    std::atomic<int> right = 0;
    std::vector<std::thread> callers;
    for (size_t i = 0; i < 16; ++i)
        callers.emplace_back([&, i] {
            for (size_t round = 0; round < 25; ++round) {
                const auto& [prefix, kind] = kinds[(i + round) % 3];
                const size_t printer = (i / 2 + round) % std::size(kPrinters);
                right += ForwardRequest(prefix + kPrinters[printer]) == ResultFor(printer, kind);
            }
        });
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(right, 16 * 25);
}

TEST(Forwarding, APrinterSideThatDoesNotAnswerCostsItsCallersTheLimit) {
    const PrinterMachine machine(300);
    TestProcess side = PrinterSide(0, 1);
    LONG results[2] = {};
    std::thread first([&] { results[0] = ForwardRequest("ReadRequest:" + kPrinters[0]); });
    EXPECT_EQ(side.Hear(), "silent");
    PauseMs(150); // the second waits less long for the mailbox than its own limit
    results[1] = ForwardRequest("WriteRequest:" + kPrinters[0]);
    first.join();
    EXPECT_EQ(results[0], kNoAnswer);
    EXPECT_EQ(results[1], ResultFor(0, kWriteRequest)) << "served after the first, and not by its late answer";

    side.Stop();
    const double start = NowMs();
    EXPECT_EQ(ForwardRequest("Refresh:" + kPrinters[0]), kNoAnswer);
    EXPECT_GE(NowMs() - start, 290);
    side.Continue();
    EXPECT_EQ(ForwardRequest("ReadRequest:" + kPrinters[0]), ResultFor(0, kReadRequest));
}

// Requests that stand in their variables, without a call of the service that waits.
TEST(Forwarding, APrinterSideThatIsGoneLeavesNoBitsAndNoRequest) {
    constexpr DWORD kUnavailable = static_cast<DWORD>(-50);
    constexpr DWORD kAwaitedMs = 300; // a successor, as long as a forwarded request
    const PrinterMachine machine(kAwaitedMs);
    // One for each printer. result: when a successor has been awaited long enough.
    const struct {
        const char* request;
        bool requesterWaits, hasSuccessor;
        DWORD result;
    } rows[] = {{"ReadRequest", true, true, 7},
                {"WriteRequest", true, false, kUnavailable},
                {"RWResult", true, false, 7}, // no request
                {"ReadRequest", false, false, 7}};
    const auto resultOf = [&](size_t i) { return machine.databases[i].NumberIn("RWResult"); };
    const auto ask = [&](size_t i) {
        EXPECT_EQ(machine.databases[i].Set("RWResult", 7), kDone);
        PauseMs(5); // after the last answer
        EXPECT_EQ(machine.databases[i].Write(rows[i].request, Number(7)), kDone);
    };
    std::vector<TestProcess> sides, successors;
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Database& database = machine.databases[i];
        EXPECT_TRUE(!rows[i].requesterWaits || database.Watch("RWResult", kEveryWrite) == kDone);
        sides.push_back(PrinterSide(i));
        EXPECT_EQ(database.Set("PrinterExtStatus", 0x81), kDone);
        EXPECT_EQ(database.Set("SpoolerStatus", 0x1C), kDone);
        ask(i);
        PrinterSide(i).Kill();
        EXPECT_EQ(ForwardRequest("Refresh:" + kPrinters[i]), ResultFor(i, kRefreshRequest)) << "the first still serves";
        EXPECT_EQ(database.NumberIn("PrinterExtStatus"), 0x81u);
    }
    for (size_t i = 0; i < std::size(rows); ++i) {
        sides[i].KillOnly();
        EXPECT_TRUE(WaitUntil([&] { return machine.databases[i].NumberIn("SpoolerStatus") == 0x10; }));
        EXPECT_EQ(machine.databases[i].NumberIn("PrinterExtStatus"), 0x80u);
        if (rows[i].hasSuccessor) successors.push_back(PrinterSide(i));
    }
    PauseMs(kAwaitedMs + 100);
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(resultOf(i), rows[i].result) << i;
    successors.clear();
    EXPECT_TRUE(WaitUntil([&] { return resultOf(0) == kUnavailable; }));
    ask(0); // too late to see that
    EXPECT_TRUE(WaitUntil([&] { return resultOf(0) == kUnavailable; }));
}

TEST(Forwarding, AKilledPrinterSideLeavesNobodyWaiting) {
    PrinterMachine machine;
    for (int round = 0; round < 2; ++round) {
        TestProcess side = PrinterSide(0, 1);
        std::atomic<int> failed = 0;
        std::vector<std::thread> callers;
        for (int i = 0; i < 4; ++i)
            callers.emplace_back([&] { failed += ForwardRequest("ReadRequest:" + kPrinters[0]) == kNoPrinterSide; });
        EXPECT_EQ(side.Hear(), "silent");
        side.Kill();
        for (std::thread& caller : callers)
            caller.join();
        EXPECT_EQ(failed, 4);
        TestProcess next = PrinterSide(0);
        EXPECT_EQ(ForwardRequest("ReadRequest:" + kPrinters[0]), ResultFor(0, kReadRequest));
    }
    TestProcess side = PrinterSide(1, 100);
    std::thread caller([] { EXPECT_NE(ForwardRequest("ReadRequest:" + kPrinters[1]), 0); });
    EXPECT_EQ(side.Hear(), "silent");
    machine.service->Stop();
    EXPECT_EQ(machine.service->process.Wait(), 0) << "the service's stop waits for no answer";
    caller.join();
}

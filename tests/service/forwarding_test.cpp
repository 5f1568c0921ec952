// Forwarded requests, between callers, the service and a printer side that this test plays in a process of its own.
#include "printer_machine.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

HANDLE MailboxEvent(const std::string& database) {
    // The emulated system is one with Terminal Services.
    const HANDLE event = OpenEventA(SYNCHRONIZE, FALSE,
                                    VariableEventName(true, database, kForwardMailbox, VariableSignal::Updated).text);
    EXPECT_NE(event, nullptr);
    return event;
}

ForwardedRequest Mailbox(DWORD handle) {
    const Bytes value = ValueOf(handle, kForwardMailbox);
    return {U32At(value, 0), U32At(value, 4)};
}

LONG WriteAnswer(DWORD handle, DWORD id, LONG result) {
    Bytes answer = Number(id);
    const Bytes second = Number(static_cast<DWORD>(result));
    answer.insert(answer.end(), second.begin(), second.end());
    return WriteVariable(handle, kForwardAnswer, answer);
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
    DWORD handle = 0;
    if (OpenDatabase(DatabaseOf(printer), &handle) != kDone) return 1;
    for (const char* name : {kForwardMailbox, kForwardAnswer}) {
        const LONG status = CreateVariable(handle, name, kTypeRecord, Bytes(8));
        if (status != kDone && status != kVariableExists) return 1;
    }
    if (WatchVariable(handle, kForwardMailbox, kEveryWrite) != kDone) return 1;
    const HANDLE event = MailboxEvent(DatabaseOf(printer));
    child.Say("serving");
    for (DWORD last = 0;;) {
        const ForwardedRequest request = Mailbox(handle);
        if (request.id == last || request.id == 0) {
            WaitForSingleObject(event, 20); // a request may have come between the look and the wait
            continue;
        }
        const DWORD before = last;
        last = request.id;
        if (request.kind == kEndRequest) {
            child.Say("asked to end");
            return 0;
        }
        if (silent > 0) {
            --silent;
            child.Say("silent");
            continue;
        }
        // Answers to other requests, and ones of no form, are not taken for this one's.
        WriteAnswer(handle, before, 77);
        WriteAnswer(handle, request.id + 1, 78);
        WriteAnswer(handle, 0, 79);
        WriteVariable(handle, kForwardAnswer, Number(request.id));
        WriteVariable(handle, kForwardAnswer, {});
        if (WriteAnswer(handle, request.id, ResultFor(printer, request.kind)) != kDone) return 0;
        WriteAnswer(handle, request.id, 80);
    }
}

namespace {

TestProcess PrinterSide(size_t printer, int silent = 0) {
    TestProcess side("ServesForwardedRequests", {std::to_string(printer), std::to_string(silent)});
    EXPECT_EQ(side.Hear(), "serving");
    return side;
}

} // namespace

TEST(Forwarding, WithoutAPrinterSideIsAnsweredAtOnce) {
    const PrinterMachine machine;
    const std::string request = "Refresh:" + kPrinters[1];
    EXPECT_EQ(ForwardRequest("Refresh:Unknown"), kNoPrinterSide);
    EXPECT_EQ(ForwardRequest(request), kNoPrinterSide) << "no mailbox";

    const DWORD handle = machine.databases[1];
    EXPECT_EQ(CreateVariable(handle, kForwardMailbox, kTypeVariableLength, Bytes(8)), kBadArgument);
    EXPECT_EQ(CreateVariable(handle, kForwardMailbox, kTypeRecord, Bytes(12)), kBadArgument);
    EXPECT_EQ(CreateVariable(handle, kForwardMailbox, kTypeRecord, {1, 0, 0, 0, 1, 0, 0, 0}), kBadArgument);
    EXPECT_EQ(CreateVariable(handle, kForwardMailbox, kTypeRecord, Bytes(8)), kDone);
    EXPECT_EQ(WriteVariable(handle, kForwardMailbox, Bytes(8)), kNotWritable);
    EXPECT_EQ(ForwardRequest(request), kNoPrinterSide) << "nobody watches it";

    TestProcess side = PrinterSide(1);
    EXPECT_EQ(ForwardRequest(request), ResultFor(1, kRefreshRequest));
    EXPECT_EQ(Mailbox(handle).id, 0u) << "and the mailbox is empty again";
    // Lists that lie about their entries, end within one, or have no form at all.
    const Bytes good = PrinterList(2, 2);
    for (const Bytes& list : {PrinterList(2, 5000), PrinterList(2, 0), Bytes(good.begin(), good.end() - 1), Bytes{},
                              Bytes(600, 0xFF), Bytes(9)}) {
        ASSERT_EQ(WriteVariable(machine.master, "PrinterDatabase", list), kDone);
        const bool listed = list.size() == good.size() && list[4] != 0;
        EXPECT_EQ(ForwardRequest(request), listed ? ResultFor(1, kRefreshRequest) : kNoPrinterSide) << list.size();
    }
    Bytes renamed = good;
    std::memcpy(renamed.data() + 8 + 560 + 8, "Front", 6);
    ASSERT_EQ(WriteVariable(machine.master, "PrinterDatabase", renamed), kDone);
    EXPECT_EQ(ForwardRequest("Refresh:Front"), ResultFor(1, kRefreshRequest));
    EXPECT_EQ(ForwardRequest(request), kNoPrinterSide);
}

TEST(Forwarding, ManyCallersEachGetTheirOwnAnswer) {
    const PrinterMachine machine;
    std::vector<TestProcess> sides;
    for (size_t i = 0; i < std::size(kPrinters); ++i)
        sides.push_back(PrinterSide(i));
    struct KindRow {
        const char* prefix;
        DWORD kind;
    };
    constexpr KindRow kKinds[] = {
        {"ReadRequest:", kReadRequest}, {"WriteRequest:", kWriteRequest}, {"Refresh:", kRefreshRequest}};
    std::atomic<int> right = 0;
    std::vector<std::thread> callers;
    for (size_t i = 0; i < 16; ++i) {
        callers.emplace_back([i, &kKinds, &right] {
            for (size_t round = 0; round < 25; ++round) {
                const KindRow& row = kKinds[(i + round) % 3];
                const size_t printer = (i / 2 + round) % std::size(kPrinters);
                right += ForwardRequest(row.prefix + kPrinters[printer]) == ResultFor(printer, row.kind);
            }
        });
    }
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

namespace {

const std::vector<VariableRow> kRequestVariables = {
    {"ReadRequest", kTypeString, Bytes(32)},   {"WriteRequest", kTypeString, Bytes(32)},
    {"RWResult", kTypeNumber, Number(0)},      {"PrinterExtStatus", kTypeNumber, Number(0)},
    {"SpoolerStatus", kTypeNumber, Number(0)}, {"TerminateManager", kTypeNumber, Number(0)}};
constexpr DWORD kUnavailable = static_cast<DWORD>(-50);

DWORD NumberIn(DWORD handle, const char* variable) {
    return U32At(ValueOf(handle, variable), 0);
}

} // namespace

// Requests that stand in their variables, without a call of the service that waits.
TEST(Forwarding, APrinterSideThatIsGoneLeavesNoBitsAndNoRequest) {
    constexpr DWORD kAwaitedMs = 400; // a successor, as long as a forwarded request
    const PrinterMachine machine(kAwaitedMs, kRequestVariables);
    const DWORD handle = machine.databases[0];
    const auto sayReady = [&] {
        EXPECT_EQ(WriteVariable(handle, "PrinterExtStatus", Number(0x81)), kDone);
        EXPECT_EQ(WriteVariable(handle, "SpoolerStatus", Number(0x1C)), kDone);
    };
    ASSERT_EQ(WatchVariable(handle, "RWResult", kEveryWrite), kDone);
    EXPECT_EQ(WriteVariable(handle, "ReadRequest", BytesOf("PageCount")), kDone);
    EXPECT_EQ(NumberIn(handle, "RWResult"), 0u) << "a printer side of another kind may serve it";
    for (const char* request : {"ReadRequest", "WriteRequest"}) {
        SCOPED_TRACE(request);
        TestProcess side = PrinterSide(0);
        EXPECT_EQ(WriteVariable(handle, "RWResult", Number(7)), kDone); // the last answer
        PauseMs(5);
        sayReady();
        EXPECT_EQ(WriteVariable(handle, request, BytesOf("PageCount")), kDone);
        {
            TestProcess second = PrinterSide(0);
            second.Kill();
        }
        EXPECT_EQ(ForwardRequest("Refresh:" + kPrinters[0]), ResultFor(0, kRefreshRequest)) << "the first still serves";
        EXPECT_EQ(NumberIn(handle, "PrinterExtStatus"), 0x81u);
        EXPECT_EQ(NumberIn(handle, "RWResult"), 7u);
        side.KillOnly();
        EXPECT_TRUE(WaitUntil([&] { return NumberIn(handle, "SpoolerStatus") == 0x10; }));
        EXPECT_EQ(NumberIn(handle, "PrinterExtStatus"), 0x80u);
        {
            TestProcess successor = PrinterSide(0);
            PauseMs(kAwaitedMs + 100);
            EXPECT_EQ(NumberIn(handle, "RWResult"), 7u) << "it is the successor's to answer";
            successor.KillOnly();
        }
        EXPECT_TRUE(WaitUntil([&] { return NumberIn(handle, "RWResult") == kUnavailable; }));
        // One that was made too late to see that.
        EXPECT_EQ(WriteVariable(handle, "RWResult", Number(7)), kDone);
        PauseMs(5);
        EXPECT_EQ(WriteVariable(handle, request, BytesOf("PageCount")), kDone);
        EXPECT_TRUE(WaitUntil([&] { return NumberIn(handle, "RWResult") == kUnavailable; }));
    }
    // Nothing is open, or nobody waits: no answer comes of itself.
    for (const bool waits : {true, false}) {
        TestProcess side = PrinterSide(0);
        sayReady();
        if (!waits) {
            EXPECT_EQ(UnwatchVariable(handle, "RWResult"), kDone);
            EXPECT_EQ(WriteVariable(handle, "ReadRequest", BytesOf("PageCount")), kDone);
        }
        PauseMs(5);
        if (waits) {
            EXPECT_EQ(WriteVariable(handle, "RWResult", Number(7)), kDone);
        }
        side.KillOnly();
        EXPECT_TRUE(WaitUntil([&] { return NumberIn(handle, "SpoolerStatus") == 0x10; }));
        PauseMs(kAwaitedMs + 100);
        EXPECT_EQ(NumberIn(handle, "RWResult"), 7u);
    }
}

TEST(Forwarding, ATerminationAsksThePrinterSidesToEnd) {
    const PrinterMachine machine(20000, kRequestVariables);
    TestProcess sides[] = {PrinterSide(0), PrinterSide(1, 1)};
    DatabaseInfo info = {};
    EXPECT_EQ(GetDatabaseInfo(machine.databases[0], &info), kDone);
    EXPECT_EQ(info.openHandles, 1u) << "a printer side is no manager";
    std::thread waits([&] { EXPECT_EQ(ForwardRequest("Refresh:" + kPrinters[1]), kNoPrinterSide); });
    EXPECT_EQ(sides[1].Hear(), "silent");
    EXPECT_EQ(WriteVariable(machine.databases[2], "TerminateManager", Number(0)), kDone);
    EXPECT_EQ(ForwardRequest("Refresh:" + kPrinters[0]), ResultFor(0, kRefreshRequest));
    EXPECT_EQ(WriteVariable(machine.databases[2], "TerminateManager", Number(1)), kDone);
    waits.join();
    for (TestProcess& side : sides) {
        EXPECT_EQ(side.Hear(), "asked to end");
        EXPECT_EQ(side.Wait(), 0);
    }
    EXPECT_TRUE(WaitUntil([&] { return Mailbox(machine.databases[0]).id == 0; })) << "its successor is not asked";
    TestProcess next = PrinterSide(0);
    EXPECT_EQ(ForwardRequest("Refresh:" + kPrinters[0]), ResultFor(0, kRefreshRequest));
}

TEST(Forwarding, AKilledPrinterSideLeavesNobodyWaiting) {
    PrinterMachine machine;
    for (int round = 0; round < 3; ++round) {
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

// Direct reads and writes: what each answers, in which order, and what an exchange survives.
#include "base/timings.h"
#include "printer_side.h"
#include "product/object_names.h"

#include <array>
#include <cstring>

namespace {

struct Direct : OpenedReady {
    ReadResult ReadDirectly(const std::string& variable, uint32_t size = 4) {
        return Read(manager, variable, size, GetPrinterStatusDirectA);
    }
    int32_t WriteDirectly(const std::string& variable, const Bytes& data) {
        return SetPrinterStatusDirectA(manager, variable.c_str(), data.data(), static_cast<uint32_t>(data.size()));
    }
};

// Reads a number directly: "status value".
CHILD_PROCESS(ReadsDirectly) {
    const Library library;
    uint32_t value = 0;
    uint32_t size = 0;
    const int32_t status =
        GetPrinterStatusDirectA(OpenPrinter(2, kPrinter, kPowerfulUser), "DNumber", &value, sizeof value, &size);
    child.Say(std::to_string(status) + " " + std::to_string(value));
    return 0;
}

} // namespace

// Each row has everything wrong that a later row has: the order of the tests.
TEST_F(Direct, AnswersComeInTheirOrder) {
    const PrinterSide printer(database, [](auto&, auto&) { return -77; });
    uint32_t value = 0;
    uint32_t size = 0;
    EXPECT_EQ(GetPrinterStatusDirectA(manager + 8, "None", &value, 4, &size), TVS_E_HANDLE);
    EXPECT_EQ(SetPrinterStatusDirectA(manager + 8, "None", &value, 4), TVS_E_HANDLE);
    constexpr int32_t kLater = TVS_E_NOT_NOW, kUnready = TVS_E_NOT_READY, kDenied = TVS_E_AUTHORITY;
    constexpr int32_t kPrinters = -77, kBegun = 1;
    // state: "PrinterExtStatus", kind of port, whether requests are forwarded, "SpoolerStatus".
    // read, write: of DNumber.
    // refresh: needs no authority.
    // later: an asynchronous read; so does the write unless its authority fails.
    const std::tuple<const char*, std::array<uint32_t, 4>, int32_t, int32_t, int32_t, int32_t, bool> rows[] = {
        {"printer side takes nothing", {0, 8, 0, 0}, kLater, kLater, kLater, kLater, true},
        {"port, no authority", {1, 9, 0, 8}, kUnready, kDenied, kUnready, kUnready, false},
        {"no authority", {1, 0, 0, 8}, kDenied, kDenied, kPrinters, kDenied, false},
        {"port", {1, 9, 0, 0}, kUnready, kUnready, kUnready, kUnready, true},
        {"port, forwarded", {0, 9, 1, 0}, kUnready, kUnready, kUnready, kUnready, true},
        {"no refreshes", {1, 0, 0, 4}, kPrinters, kPrinters, kLater, kBegun, true},
        {"spooler not ready", {0, 0, 1, 0}, kUnready, kUnready, kLater, kUnready, true},
        {"all well", {1, 0xF0, 0, 8}, kPrinters, kPrinters, kPrinters, kUnready, true},
    };
    for (const auto& [what, state, read, write, refresh, later, powerful] : rows) {
        SCOPED_TRACE(what);
        SetReady(manager, state[0], state[3], state[1]);
        record->lmFunction = state[2];
        std::strcpy(record->userName, powerful ? kPowerfulUser : "operator");
        EXPECT_EQ(ReadDirectly("DNumber").status, read);
        EXPECT_EQ(WriteDirectly("DNumber", Number(1)), write);
        EXPECT_EQ(WriteDirectly("DNumber", Bytes(8)), write == kLater || write == kDenied ? write : TVS_E_SIZE);
        EXPECT_EQ(WriteDirectly("RefreshStatus", BytesOf("all")), refresh);
        if (later != kBegun) {
            EXPECT_EQ(GetReqPrinterStatusEventA(manager, "DNumber", nullptr), later);
            EXPECT_EQ(GetReqPrinterStatusMsgA(manager, "DNumber", nullptr, 0), later);
            const int32_t written = write == kDenied ? kDenied : later;
            EXPECT_EQ(SetReqPrinterStatusEventA(manager, "DNumber", &value, 4, nullptr, &size), written);
            EXPECT_EQ(SetReqPrinterStatusMsgA(manager, "DNumber", &value, 4, nullptr, 0, &size), written);
        }
        for (const char* unknown : {"None", "AccessControlList"})
            EXPECT_EQ(ReadDirectly(unknown).status, TVS_E_UNKNOWN);
        for (const char* unknown : {"None", "AccessControlList", "DRead", "Plain"}) // no printer takes it, no handler
            EXPECT_EQ(WriteDirectly(unknown, Number(1)), TVS_E_UNKNOWN);
        EXPECT_EQ(NumberOf(manager, "Plain"), 4u);
    }
    // The size is told without asking anybody.
    const int before = printer.Requests();
    EXPECT_EQ(ReadDirectly("DText", 0).returnedSize, 16u);
    EXPECT_EQ(ReadDirectly("DVariable", 0).returnedSize, 4u);
    EXPECT_EQ(ReadDirectly("DVariable", 0).status, TVS_E_SIZE);
    EXPECT_EQ(ReadDirectly("JobStatus").status, TVS_OK) << "stored: as any read";
    EXPECT_EQ(WriteDirectly("DText", Bytes(17, 'x')), TVS_E_UNKNOWN) << "its companion takes 16 bytes";
    EXPECT_EQ(printer.Requests(), before);
}

TEST_F(Direct, ValuesGoThroughTheDatabase) {
    std::string asked;
    const PrinterSide printer(database, [&](const std::string& mailbox, const std::string& text) {
        asked = mailbox + ":" + text;
        if (text == "DNumber") StoreBytes(database, text, Number(42));
        if (text == "DVariable") StoreBytes(database, text, Joined({Number(9), Text("123456789")}));
        return 0;
    });
    const std::tuple<const char*, uint32_t, int32_t, uint32_t, Bytes> rows[] = {
        {"DNumber", 8, TVS_OK, 4, Number(42)},
        {"DRead", 4, TVS_OK, 4, Number(3)},
        {"DVariable", 3, TVS_E_SIZE, 3, Text("123")}};
    for (const auto& [name, room, status, returned, first] : rows) {
        SCOPED_TRACE(name);
        const ReadResult read = ReadDirectly(name, room);
        EXPECT_EQ(read.status, status);
        EXPECT_EQ(read.returnedSize, returned);
        EXPECT_EQ(Bytes(read.bytes.begin(), read.bytes.begin() + static_cast<long>(first.size())), first);
        EXPECT_EQ(asked, std::string("ReadRequest:") + name);
    }
    // A text ends at its NUL, or where its size does.
    const std::tuple<const char*, Bytes, const char*, Bytes> writes[] = {
        {"DNumber", Number(7), "DNumberW", Number(7)},
        {"DText", Text("tray"), "DTextW", Text("tray")},
        {"DVariable", Text("abc"), "DVariableW", Joined({Number(3), Text("abc")})},
        {"RefreshStatus", Joined({BytesOf("all"), Text("more")}), "RefreshStatus", BytesOf("all")}};
    for (const auto& [variable, data, companion, stored] : writes) {
        EXPECT_EQ(WriteDirectly(variable, data), TVS_OK) << variable;
        EXPECT_EQ(StoredBytes(database, companion), stored);
        EXPECT_EQ(asked, std::string("WriteRequest:") + companion);
    }
    EXPECT_EQ(NumberOf(manager, "DNumber"), 42u);
    StoreBytes(database, "DVariable", {1, 2}); // shorter than its length: as good as empty
    EXPECT_EQ(ReadDirectly("DVariable", 0).returnedSize, 0u);
}

// A request has room for 31 characters, and names of a write the companion, which has one more.
TEST_F(Direct, ANameThatDoesNotFitTheRequestIsUnknown) {
    AddPrinter("Other", "Long names");
    for (const size_t length : {30, 31, 32})
        AddModelVariable("Long names", std::string(length, 'n'), 4, 0x30204, Number(1));
    manager = OpenPrinter(2, "Other", kPowerfulUser);
    SetReady(manager);
    const PrinterSide printer(RecordOf(manager)->printerDatabase.handle);
    for (const size_t length : {30, 31, 32}) {
        const std::string name(length, 'n');
        uint32_t number = 0;
        const int32_t read = length < 32 ? TVS_OK : TVS_E_UNKNOWN;
        const int32_t write = length < 31 ? TVS_OK : TVS_E_UNKNOWN;
        EXPECT_EQ(ReadDirectly(name).status, read) << length;
        EXPECT_EQ(WriteDirectly(name, Number(7)), write) << length;
        EXPECT_EQ(GetReqPrinterStatusEventA(manager, name.c_str(), nullptr), read) << length;
        EXPECT_EQ(SetReqPrinterStatusEventA(manager, name.c_str(), &number, 4, nullptr, &number), write) << length;
    }
}

TEST_F(Direct, AForwardedRequestWaitsAMomentForTheSpoolerAndLeavesItsResult) {
    record->lmFunction = 1;
    g_timings.readinessPause = 1;
    SetReady(manager, 0, 8);
    EXPECT_EQ(ReadDirectly("DText").status, TVS_E_NOT_READY);
    EXPECT_EQ(StoredBytes(database, "ReadRequest"), BytesOf("DText"));
    g_timings.readinessPause = 500; // the spooler needs a part of one
    const TestThread spooler([&] {
        WaitUntil([&] { return StoredBytes(database, "ReadRequest") == BytesOf("DNumber"); });
        SetReady(manager, 0, 12);
    });
    const int32_t status = ReadDirectly("DNumber").status;
    EXPECT_EQ(status, -14) << "the service's answer while nobody serves the printer";
    EXPECT_EQ(NumberOf(manager, "RWResult"), static_cast<uint32_t>(status));
}

TEST_F(Direct, AnEventThatTellsNothingEndsNoRequest) {
    const product::KernelName name =
        product::VariableEventName(true, record->databaseName, "RWResult", product::VariableSignal::Updated);
    const HANDLE event = CreateEventA(nullptr, TRUE, TRUE, name.text); // left set by somebody
    const PrinterSide printer(database, [&](auto&, auto&) {
        PauseMs(30);
        SetEvent(event);
        PauseMs(30);
        return 5;
    });
    EXPECT_EQ(ReadDirectly("DNumber").status, 5);
    CloseHandle(event);
}

// The dead one's answer comes while the next one is waiting for its own.
TEST_F(Direct, AnAnswerToADeadRequesterIsNotTheNextOnesAnswer) {
    std::atomic<int> answers = 0;
    const HANDLE go = NewEvent();
    const PrinterSide printer(database, [&](auto&, auto&) {
        IsSet(go);
        StoreBytes(database, "DNumber", Number(static_cast<uint32_t>(++answers)));
        return answers == 1 ? -1 : 0;
    });
    TestProcess first("ReadsDirectly");
    ASSERT_TRUE(WaitUntil([&] { return printer.Requests() == 1; }));
    first.Kill();
    TestProcess second("ReadsDirectly");
    PauseMs(100); // it waits by now, or comes a little later: either way it must not take the first answer
    SetEvent(go);
    ASSERT_TRUE(WaitUntil([&] { return printer.Requests() == 2; }));
    SetEvent(go);
    EXPECT_EQ(second.Hear(), "0 2");
}

TEST_F(Direct, ARequesterThatNobodyAnswersEndsWithThePrinterSidesSuccessor) {
    std::optional<PrinterSide> printer(std::in_place, database, [](auto&, auto&) { return std::nullopt; });
    std::atomic<int32_t> status = 1;
    {
        const TestThread reader([&] { status = ReadDirectly("DNumber").status; });
        ASSERT_TRUE(WaitUntil([&] { return printer->Requests() == 1; }));
        PauseMs(50);
        EXPECT_EQ(status, 1) << "it waits for as long as it takes";
        printer.emplace(database);
    }
    EXPECT_EQ(status, TVS_OK);
}

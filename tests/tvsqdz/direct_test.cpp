// Direct reads and writes: what each answers, in which order, and what an exchange survives.
#include "base/timings.h"
#include "memory_kit.h"
#include "printer_side.h"
#include "product/object_names.h"

#include <cstring>

namespace {

ReadResult ReadDirectly(TvsManager manager, const std::string& variable, uint32_t size) {
    return Read(manager, variable, size, GetPrinterStatusDirectA);
}

int32_t WriteDirectly(TvsManager manager, const std::string& variable, const Bytes& data) {
    return SetPrinterStatusDirectA(manager, variable.c_str(), data.data(), static_cast<uint32_t>(data.size()));
}

// Reads a number directly until told to stop, a line for each: "status value".
CHILD_PROCESS(ReadsDirectly) {
    const Library library;
    const TvsManager manager = OpenAuthorised();
    for (;;) {
        if (child.Hear() != "read") return CloseManager(manager);
        uint32_t value = 0;
        uint32_t size = 0;
        child.Say("asking");
        const int32_t status = GetPrinterStatusDirectA(manager, "DNumber", &value, sizeof value, &size);
        child.Say(std::to_string(status) + " " + std::to_string(value));
    }
}

} // namespace

// Each row has everything wrong that a later row has: the order of the tests.
TEST(Direct, AnswersComeInTheirOrder) {
    const DirectProduct product;
    const TvsManager manager = product.manager;
    PrinterSide printer(product.record, [&](const std::string&, const std::string&) { return -77; });
    uint32_t value = 0;
    uint32_t size = 0;
    EXPECT_EQ(GetPrinterStatusDirectA(manager + 8, "None", &value, 4, &size), TVS_E_HANDLE);
    EXPECT_EQ(SetPrinterStatusDirectA(manager + 8, "None", &value, 4), TVS_E_HANDLE);
    struct Row {
        const char* what;
        uint32_t extStatus, portKind, forward, spoolerStatus;
        int32_t read;      // of DNumber with a buffer of 4
        int32_t write;     // of DNumber
        int32_t wrongSize; // write of 8 bytes
        int32_t refresh;   // needs no authority
        const char* user = kPowerfulUser;
    };
    for (const Row& row : {
             Row{"printer side takes nothing", 0, 8, 0, 0, TVS_E_NOT_NOW, TVS_E_NOT_NOW, TVS_E_NOT_NOW, TVS_E_NOT_NOW},
             Row{"port, no authority", 1, 9, 0, 8, TVS_E_NOT_READY, TVS_E_AUTHORITY, TVS_E_AUTHORITY, TVS_E_NOT_READY,
                 "operator"},
             Row{"no authority", 1, 0, 0, 8, TVS_E_AUTHORITY, TVS_E_AUTHORITY, TVS_E_AUTHORITY, -77, "operator"},
             Row{"no authority, forwarded", 0, 0, 1, 0, TVS_E_AUTHORITY, TVS_E_AUTHORITY, TVS_E_AUTHORITY,
                 TVS_E_NOT_NOW, "operator"},
             Row{"port", 1, 9, 0, 0, TVS_E_NOT_READY, TVS_E_NOT_READY, TVS_E_SIZE, TVS_E_NOT_READY},
             Row{"port, forwarded", 0, 9, 1, 0, TVS_E_NOT_READY, TVS_E_NOT_READY, TVS_E_SIZE, TVS_E_NOT_READY},
             Row{"no refreshes", 1, 0, 0, 4, -77, -77, TVS_E_SIZE, TVS_E_NOT_NOW},
             Row{"spooler not ready", 0, 0, 1, 0, TVS_E_NOT_READY, TVS_E_NOT_READY, TVS_E_SIZE, TVS_E_NOT_NOW},
             Row{"all well", 1, 0xF0, 0, 8, -77, -77, TVS_E_SIZE, -77},
         }) {
        SCOPED_TRACE(row.what);
        SetReady(manager, row.extStatus, row.spoolerStatus, row.portKind);
        product.record->lmFunction = row.forward;
        std::strcpy(product.record->userName, row.user);
        EXPECT_EQ(ReadDirectly(manager, "DNumber", 4).status, row.read);
        EXPECT_EQ(WriteDirectly(manager, "DNumber", Number(1)), row.write);
        EXPECT_EQ(WriteDirectly(manager, "DNumber", Bytes(8)), row.wrongSize);
        EXPECT_EQ(WriteDirectly(manager, "RefreshStatus", BytesOf("all")), row.refresh);
        for (const char* unknown : {"None", "AccessControlList"}) {
            EXPECT_EQ(ReadDirectly(manager, unknown, 4).status, TVS_E_UNKNOWN);
            EXPECT_EQ(WriteDirectly(manager, unknown, Number(1)), TVS_E_UNKNOWN);
        }
        EXPECT_EQ(WriteDirectly(manager, "DRead", Number(1)), TVS_E_UNKNOWN);
        EXPECT_EQ(WriteDirectly(manager, "Plain", Number(1)), TVS_E_UNKNOWN) << "no printer takes it, and no handler";
        EXPECT_EQ(NumberOf(manager, "Plain"), 4u);
    }
    // The size is told without asking anybody.
    const int before = printer.Requests();
    EXPECT_EQ(ReadDirectly(manager, "DText", 0).returnedSize, 16u);
    EXPECT_EQ(ReadDirectly(manager, "DVariable", 0).returnedSize, 4u);
    EXPECT_EQ(ReadDirectly(manager, "DVariable", 0).status, TVS_E_SIZE);
    EXPECT_EQ(ReadDirectly(manager, "JobStatus", 4).status, TVS_OK) << "stored: as any read";
    EXPECT_EQ(WriteDirectly(manager, "DText", Bytes(17, 'x')), TVS_E_UNKNOWN) << "its companion takes 16 bytes";
    EXPECT_EQ(printer.Requests(), before);
}

TEST(Direct, ValuesGoThroughTheDatabase) {
    const DirectProduct product;
    const TvsManager manager = product.manager;
    std::string asked;
    const PrinterSide printer(product.record, [&](const std::string& mailbox, const std::string& text) {
        asked = mailbox + ":" + text;
        if (text == "DNumber") StoreBytes(product.database, text, Number(42));
        if (text == "DText") StoreBytes(product.database, text, BytesOf("from the tray"));
        if (text == "DVariable") StoreBytes(product.database, text, Joined({Number(9), Text("123456789")}));
        return 0;
    });
    struct Row {
        const char* variable;
        uint32_t size;
        int32_t status;
        uint32_t returned;
        Bytes first;
    };
    for (const Row& row :
         {Row{"DNumber", 8, TVS_OK, 4, Number(42)}, Row{"DRead", 4, TVS_OK, 4, Number(3)},
          Row{"DText", 20, TVS_OK, 16, BytesOf("from the tray")}, Row{"DText", 4, TVS_E_SIZE, 4, Text("from")},
          Row{"DVariable", 20, TVS_OK, 9, Text("123456789")}, Row{"DVariable", 3, TVS_E_SIZE, 3, Text("123")}}) {
        SCOPED_TRACE(row.variable);
        const ReadResult read = ReadDirectly(manager, row.variable, row.size);
        EXPECT_EQ(read.status, row.status);
        EXPECT_EQ(read.returnedSize, row.returned);
        EXPECT_EQ(Bytes(read.bytes.begin(), read.bytes.begin() + static_cast<long>(row.first.size())), row.first);
        EXPECT_EQ(asked, std::string("ReadRequest:") + row.variable);
    }
    EXPECT_EQ(WriteDirectly(manager, "DNumber", Number(7)), TVS_OK);
    EXPECT_EQ(StoredBytes(product.database, "DNumberW"), Number(7));
    EXPECT_EQ(asked, "WriteRequest:DNumberW");
    EXPECT_EQ(NumberOf(manager, "DNumber"), 42u);
    EXPECT_EQ(WriteDirectly(manager, "DText", Text("tray")), TVS_OK);
    EXPECT_EQ(StoredBytes(product.database, "DTextW"), Text("tray"));
    EXPECT_EQ(WriteDirectly(manager, "DVariable", Text("abc")), TVS_OK);
    EXPECT_EQ(StoredBytes(product.database, "DVariableW"), Joined({Number(3), Text("abc")}));
    // A text ends at its NUL, or where its size does.
    for (const Bytes& text : {BytesOf("all"), Text("all"), Joined({BytesOf("all"), Text("more")})}) {
        EXPECT_EQ(WriteDirectly(manager, "RefreshStatus", text), TVS_OK);
        EXPECT_EQ(StoredBytes(product.database, "RefreshStatus"), BytesOf("all"));
        EXPECT_EQ(asked, "WriteRequest:RefreshStatus");
    }
}

// A request has room for 31 characters, and names of a write the companion, which has one more.
TEST(Direct, ANameThatDoesNotFitTheRequestIsUnknown) {
    const auto nameOf = [](size_t length) { return std::string(length, 'n'); };
    for (size_t length = 30; length < 34; ++length)
        AddModelVariable(kModel, nameOf(length), 4, 0x30204, Number(1));
    const DirectProduct product;
    const TvsManager manager = product.manager;
    const PrinterSide printer(product.record, [](const std::string&, const std::string&) { return 0; });
    const HANDLE done = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (size_t length = 30; length < 34; ++length) {
        SCOPED_TRACE(length);
        const std::string name = nameOf(length);
        const int32_t read = length < 32 ? TVS_OK : TVS_E_UNKNOWN;
        const int32_t write = length < 31 ? TVS_OK : TVS_E_UNKNOWN;
        uint32_t number = 0;
        int32_t result = 5;
        EXPECT_EQ(ReadDirectly(manager, name, 4).status, read);
        EXPECT_EQ(WriteDirectly(manager, name, Number(7)), write);
        EXPECT_EQ(GetReqPrinterStatusEventA(manager, name.c_str(), done), read);
        EXPECT_EQ(WaitForSingleObject(done, read == TVS_OK ? 10000 : 0), read == TVS_OK ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        EXPECT_EQ(SetReqPrinterStatusEventA(manager, name.c_str(), &number, 4, done, &number), write);
        if (write != TVS_OK) continue;
        EXPECT_EQ(WaitForSingleObject(done, 10000), DWORD{WAIT_OBJECT_0});
        EXPECT_EQ(ResSetPrinterStatus(manager, number, &result), TVS_OK);
        EXPECT_EQ(result, 0);
    }
}

TEST(Direct, BadAddressesAreAnErrorAndLoseNoLock) {
    const DirectProduct product;
    const PrinterSide printer(product.record, [](const std::string&, const std::string&) { return 0; });
    uint32_t size = 0;
    BadMemory memory;
    for (const AddressCase& row : memory.Kinds(4)) {
        SCOPED_TRACE(row.kind);
        if (row.size != 4) continue;
        const int requests = printer.Requests();
        EXPECT_EQ(SetPrinterStatusDirectA(product.manager, "DNumber", row.address, 4),
                  row.readable ? TVS_OK : TVS_E_FAULT);
        EXPECT_EQ(printer.Requests(), requests + row.readable) << "nobody is asked for what cannot be read";
        EXPECT_EQ(GetPrinterStatusDirectA(product.manager, "DNumber", row.address, 4, &size), row.writable ? TVS_OK
                                                                                              : row.address == nullptr
                                                                                                  ? TVS_E_SIZE
                                                                                                  : TVS_E_FAULT);
        EXPECT_EQ(WaitForSingleObject(product.record->requestMutex, 0), DWORD{WAIT_OBJECT_0});
        ReleaseMutex(product.record->requestMutex);
    }
}

TEST(Direct, AForwardedRequestWaitsAMomentForTheSpoolerAndLeavesItsResult) {
    const DirectProduct product;
    product.record->lmFunction = 1;
    g_timings.readinessPause = 1;
    SetReady(product.manager, 0, 8);
    EXPECT_EQ(ReadDirectly(product.manager, "DText", 4).status, TVS_E_NOT_READY);
    EXPECT_EQ(StoredBytes(product.database, "ReadRequest"), BytesOf("DText"));
    g_timings.readinessPause = 1000; // the spooler needs a part of one
    TestThread spooler([&] {
        WaitUntil([&] { return StoredBytes(product.database, "ReadRequest") == BytesOf("DNumber"); });
        SetReady(product.manager, 0, 12);
    });
    const int32_t status = ReadDirectly(product.manager, "DNumber", 4).status;
    EXPECT_EQ(status, -14) << "the service's answer while nobody serves the printer";
    EXPECT_EQ(NumberOf(product.manager, "RWResult"), static_cast<uint32_t>(status));
}

TEST(Direct, AnEventThatTellsNothingEndsNoRequest) {
    const DirectProduct product;
    const product::KernelName name =
        product::VariableEventName(true, product.record->databaseName, "RWResult", product::VariableSignal::Updated);
    const HANDLE event = CreateEventA(nullptr, TRUE, TRUE, name.text); // left set by somebody
    std::atomic<int32_t> result = 5;
    const PrinterSide printer(product.record, [&](const std::string&, const std::string&) {
        PauseMs(30);
        SetEvent(event);
        PauseMs(30);
        return static_cast<int32_t>(result);
    });
    for (; result < 8; ++result)
        EXPECT_EQ(ReadDirectly(product.manager, "DNumber", 4).status, result);
    CloseHandle(event);
}

// The dead one's answer comes while the next one is waiting for its own.
TEST(Direct, AnAnswerToADeadRequesterIsNotTheNextOnesAnswer) {
    const DirectProduct product;
    std::atomic<int> answers = 0;
    const HANDLE go = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const PrinterSide printer(product.record, [&](const std::string&, const std::string&) {
        WaitForSingleObject(go, 10000);
        StoreBytes(product.database, "DNumber", Number(static_cast<uint32_t>(++answers)));
        return answers == 1 ? -1 : 0;
    });
    TestProcess first("ReadsDirectly");
    first.Tell("read");
    EXPECT_EQ(first.Hear(), "asking");
    ASSERT_TRUE(WaitUntil([&] { return printer.Requests() == 1; }));
    first.Kill();
    TestProcess second("ReadsDirectly");
    second.Tell("read");
    EXPECT_EQ(second.Hear(), "asking");
    PauseMs(100); // it waits by now, or comes a little later: either way it must not take the first answer
    SetEvent(go);
    ASSERT_TRUE(WaitUntil([&] { return printer.Requests() == 2; }));
    SetEvent(go);
    EXPECT_EQ(second.Hear(), "0 2");
    CloseHandle(go);
}

TEST(Direct, ARequesterThatNobodyAnswersEndsWithTheServiceOrThePrinterSidesSuccessor) {
    DirectProduct product;
    std::optional<PrinterSide> printer(std::in_place, product.record,
                                       [](const std::string&, const std::string&) { return std::nullopt; });
    std::atomic<int32_t> status = 1;
    {
        const TestThread reader([&] { status = ReadDirectly(product.manager, "DNumber", 4).status; });
        ASSERT_TRUE(WaitUntil([&] { return printer->Requests() == 1; }));
        PauseMs(50);
        EXPECT_EQ(status, 1) << "it waits for as long as it takes";
        printer.reset();
        printer.emplace(product.record, [](const std::string&, const std::string&) { return 0; });
    }
    EXPECT_EQ(status, TVS_OK);
    printer.reset();
    const auto requests = [&] {
        DWORD writes = 0;
        EXPECT_EQ(GetWriteCount(product.database, "ReadRequest", &writes), Answer::Done);
        return writes;
    };
    const DWORD before = requests();
    {
        const TestThread reader([&] { status = ReadDirectly(product.manager, "DNumber", 4).status; });
        ASSERT_TRUE(WaitUntil([&] { return requests() != before; }));
        product.service.process.Kill();
    }
    EXPECT_GT(status, 0) << "the RPC run-time's code";
}

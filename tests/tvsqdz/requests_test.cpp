// Asynchronous requests: their codes in their order, their results, and what they survive.
#include "base/timings.h"
#include "manager/variable_index.h"
#include "memory_kit.h"
#include "notification_kit.h"
#include "printer_side.h"
#include "product/client_kinds.h"
#include "product/object_names.h"
#include "requests/threads.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace {

constexpr uint32_t kDone = 0x8001;

struct RequestProduct : DirectProduct {
    ~RequestProduct() { CloseHandle(event); }

    int32_t StartRead(const char* variable = "DNumber") { return GetReqPrinterStatusEventA(manager, variable, event); }
    int32_t StartWrite(const Bytes& value = Number(7), const char* variable = "DNumber") {
        return SetReqPrinterStatusEventA(manager, variable, value.data(), static_cast<uint32_t>(value.size()), event,
                                         &number);
    }
    int32_t StartMessageWrite(HWND window) {
        const uint32_t value = 9;
        return SetReqPrinterStatusMsgA(manager, "DNumber", &value, sizeof value, window, kDone, &number);
    }
    bool IsTold(DWORD timeoutMs = 20000) {
        const bool told = WaitForSingleObject(event, timeoutMs) == WAIT_OBJECT_0;
        ResetEvent(event);
        return told;
    }
    int32_t Result(uint32_t id) {
        int32_t result = 1;
        EXPECT_EQ(ResSetPrinterStatus(manager, id, &result), TVS_OK);
        return result;
    }

    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    uint32_t number = 0;
};

Bytes EmptyList() {
    return Joined({Number(4), Number(0)});
}

} // namespace

// Each row has what all rows before it have put right, and its own fault.
TEST(Requests, AnswersComeInTheirOrder) {
    RequestProduct product;
    const TvsManager manager = product.manager;
    const HWND window = MakeWindow("Requester");
    const uint32_t processKinds = g_processKindMask;
    const uint32_t value = 1;
    uint32_t number = 5;
    const auto all = [&](TvsManager m, const char* variable) {
        std::vector<int32_t> answers;
        answers.push_back(GetReqPrinterStatusEventA(m, variable, product.event));
        answers.push_back(GetReqPrinterStatusMsgA(m, variable, window, kDone));
        answers.push_back(SetReqPrinterStatusEventA(m, variable, &value, 4, product.event, &number));
        EXPECT_EQ(number, 0u) << "set to none before anything else";
        answers.push_back(SetReqPrinterStatusMsgA(m, variable, &value, 4, window, kDone, &number));
        EXPECT_EQ(number, 0u);
        return answers;
    };
    const auto each = [](int32_t status) { return std::vector<int32_t>(4, status); };
    SetReady(manager, 0, 0, 8);
    g_processKindMask = 0; // as if all managers were of kinds that relay
    RemoveKindBits(kOwnerKindBit);
    EXPECT_EQ(all(manager + 8, "None"), each(TVS_E_HANDLE));
    const std::vector<int32_t> noOwner = {TVS_E_UNKNOWN, TVS_E_NO_OWNER, TVS_E_UNKNOWN, TVS_E_NO_OWNER};
    EXPECT_EQ(all(manager, "None"), noOwner);
    g_processKindMask = processKinds;
    for (const char* variable : {"None", "JobStatus", "AccessControlList"})
        EXPECT_EQ(all(manager, variable), each(TVS_E_UNKNOWN)) << variable;
    EXPECT_EQ(all(manager, "DNumber"), each(TVS_E_NOT_NOW));
    SetReady(manager, 1, 0, 9);
    EXPECT_EQ(all(manager, "DNumber"), each(TVS_E_NOT_READY)) << "port";
    std::strcpy(product.record->userName, "operator");
    const std::vector<int32_t> noAuthority = {TVS_E_NOT_READY, TVS_E_NOT_READY, TVS_E_AUTHORITY, TVS_E_AUTHORITY};
    EXPECT_EQ(all(manager, "DNumber"), noAuthority);
    SetReady(manager, 1, 0);
    EXPECT_EQ(all(manager, "DNumber"), each(TVS_E_AUTHORITY)) << "before the spooler";
    EXPECT_EQ(product.StartWrite(BytesOf("all"), "RefreshStatus"), TVS_E_NOT_READY) << "needs none";
    std::strcpy(product.record->userName, kPowerfulUser);
    product.record->lmFunction = 1;
    SetReady(manager, 0, 0, 9);
    EXPECT_EQ(all(manager, "DNumber"), each(TVS_E_NOT_READY)) << "nobody asks the printer side on the forwarded path";
    product.record->lmFunction = 0;
    for (const uint32_t spooler : {0u, 8u}) {
        SetReady(manager, 1, spooler);
        EXPECT_EQ(all(manager, "DNumber"), each(TVS_E_NOT_READY)) << "spooler " << spooler;
    }
    SetReady(manager, 1, 4);
    EXPECT_EQ(product.StartWrite(BytesOf("all"), "RefreshStatus"), TVS_E_NOT_NOW) << "the spooler takes none";
    EXPECT_EQ(product.StartWrite(Bytes(8)), TVS_E_UNKNOWN) << "its companion takes 4 bytes";
    EXPECT_EQ(StoredBytes(product.database, "ReqResult"), EmptyList());
    StoreBytes(product.database, "ReqResult", Joined({Number(12), Number(1), Number(0xFFFFFFFF), Number(0)}));
    EXPECT_EQ(product.StartWrite(), TVS_E_MEMORY) << "no number is left";
    EXPECT_EQ(product.number, 0u);
}

TEST(Requests, ReadsAndWritesAreDoneAndTold) {
    RequestProduct product;
    const HWND window = MakeWindow("Requester");
    const auto posted = [&] {
        MSG message = {};
        EXPECT_TRUE(TakeMessage(message, window));
        return message.message == kDone && message.wParam == 0 && message.lParam == 0;
    };
    std::vector<std::string> asked; // to be read once requests says that they are there
    std::atomic<int> requests = 0;
    const HANDLE go = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    const PrinterSide printer(product.record, [&](const std::string& mailbox, const std::string& text) {
        WaitForSingleObject(go, 10000);
        asked.push_back(mailbox + ":" + text);
        ++requests;
        if (mailbox == "ReadRequest") StoreBytes(product.database, text, Number(42));
        return text == "DTextW" ? -77 : 0;
    });
    EXPECT_EQ(product.StartRead(), TVS_OK);
    EXPECT_TRUE(product.IsTold());
    EXPECT_EQ(NumberOf(product.manager, "DNumber"), 42u);
    EXPECT_EQ(GetReqPrinterStatusMsgA(product.manager, "DNumber", window, kDone), TVS_OK);
    EXPECT_TRUE(posted());

    // A result can be asked for while the request waits, and another request be made.
    ResetEvent(go);
    EXPECT_EQ(product.StartWrite(), TVS_OK);
    EXPECT_EQ(product.number, 1u);
    EXPECT_EQ(StoredBytes(product.database, "ReqResult"),
              Joined({Number(12), Number(1), Number(1), Number(0xFFFFFFFF)}));
    EXPECT_EQ(StoredBytes(product.database, "DNumberW"), Number(7));
    EXPECT_EQ(product.StartWrite(Text("text"), "DText"), TVS_OK);
    EXPECT_EQ(product.number, 2u);
    EXPECT_EQ(product.StartWrite(BytesOf("all"), "RefreshStatus"), TVS_OK);
    EXPECT_EQ(product.number, 3u);
    EXPECT_EQ(product.Result(3), TVS_REQUEST_PENDING) << "asked for too early, and taken";
    SetEvent(go);
    ASSERT_TRUE(WaitUntil([&] { return requests == 5; }));
    ASSERT_TRUE(WaitUntil([&] { // the last one's thread has recorded what it could
        const Bytes list = StoredBytes(product.database, "ReqResult");
        return list == Joined({Number(20), Number(2), Number(1), Number(0), Number(2), Number(0xFFFFFFB3)});
    }));
    EXPECT_TRUE(product.IsTold());
    EXPECT_EQ(product.Result(2), -77);
    std::sort(asked.begin(), asked.end());
    EXPECT_EQ(asked, (std::vector<std::string>{"ReadRequest:DNumber", "ReadRequest:DNumber", "WriteRequest:DNumberW",
                                               "WriteRequest:DTextW", "WriteRequest:RefreshStatus"}));
    // The next number follows the largest that is left. A message's request has the result 0 from the start.
    ResetEvent(go);
    EXPECT_EQ(product.StartMessageWrite(window), TVS_OK);
    EXPECT_EQ(product.number, 2u);
    EXPECT_EQ(StoredBytes(product.database, "ReqResult"),
              Joined({Number(20), Number(2), Number(1), Number(0), Number(2), Number(0)}));
    SetEvent(go);
    EXPECT_TRUE(posted());
    EXPECT_EQ(product.Result(2), 0);
    EXPECT_EQ(product.Result(1), 0);
    // A window that is gone is told nothing, and nobody will ask for the result.
    ResetEvent(go);
    EXPECT_EQ(product.StartMessageWrite(window), TVS_OK);
    DestroyWindow(window);
    SetEvent(go);
    EXPECT_TRUE(WaitUntil([&] { return StoredBytes(product.database, "ReqResult") == EmptyList(); }));
    CloseHandle(go);
}

TEST(Requests, BadAddressesAreAnErrorAndStartNothing) {
    RequestProduct product;
    const PrinterSide printer(product.record, [](const std::string&, const std::string&) { return 0; });
    const uint32_t value = 7;
    BadMemory memory;
    for (const AddressCase& row : memory.Kinds(4)) {
        SCOPED_TRACE(row.kind);
        if (row.size != 4) continue;
        const auto finish = [&](int32_t status, bool good) {
            EXPECT_EQ(status, good ? TVS_OK : TVS_E_FAULT);
            if (good) {
                EXPECT_TRUE(product.IsTold());
                EXPECT_EQ(product.Result(1), 0);
            }
            EXPECT_EQ(StoredBytes(product.database, "ReqResult"), EmptyList());
        };
        finish(SetReqPrinterStatusEventA(product.manager, "DNumber", row.address, 4, product.event, &product.number),
               row.readable);
        finish(SetReqPrinterStatusEventA(product.manager, "DNumber", &value, 4, product.event,
                                         static_cast<uint32_t*>(row.address)),
               row.writable);
    }
}

TEST(Requests, AWriteWithAHandlerOfTheLibraryIsDoneAtOnce) {
    RequestProduct product;
    static int handled;
    StatusVariableDef row = *FindStatusVariable(product.record, "DNumber");
    row.localWrite = [](ManagerRecord*, const void*, uint32_t) -> int32_t {
        ++handled;
        return TVS_E_NOT_NOW;
    };
    for (uint32_t i = 0; i < product.record->variableCount; ++i)
        if (std::strcmp(product.record->variableIndex[i]->name, "DNumber") == 0)
            product.record->variableIndex[i] = &row;
    const HWND window = MakeWindow("Requester");
    EXPECT_EQ(product.StartMessageWrite(window), TVS_OK);
    EXPECT_EQ(handled, 1);
    MSG message = {};
    EXPECT_TRUE(TakeMessage(message, window));
    EXPECT_EQ(product.Result(product.number), 0);
}

TEST(Requests, WhatIsNotAnsweredEndsAndTheNextGoesOn) {
    RequestProduct product;
    g_timings.answerBound = 300;
    g_timings.requestLockBound = 100;
    EXPECT_EQ(product.StartWrite(), TVS_OK);
    EXPECT_TRUE(product.IsTold());
    EXPECT_EQ(product.Result(1), TVS_E_REQUEST_LOCK);
    EXPECT_EQ(product.StartRead(), TVS_OK);
    EXPECT_TRUE(product.IsTold());
    // One that cannot have its turn in time, behind one that holds it.
    EXPECT_EQ(product.StartRead(), TVS_OK);
    EXPECT_EQ(product.StartWrite(), TVS_OK);
    const HANDLE other = product.event;
    product.event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(product.StartWrite(), TVS_OK);
    EXPECT_TRUE(product.IsTold());
    EXPECT_EQ(product.Result(2), TVS_E_REQUEST_LOCK);
    const PrinterSide printer(product.record, [](const std::string&, const std::string&) { return 0; });
    EXPECT_EQ(product.StartRead(), TVS_OK); // waits until the others have let go
    EXPECT_TRUE(product.IsTold());
    CloseHandle(other);
}

TEST(Requests, ARequestOutlivesItsManagerAndEndsWithTheLibrary) {
    RequestProduct product;
    TvsManager second = OpenAuthorised();
    EXPECT_EQ(product.StartWrite(), TVS_OK);
    EXPECT_EQ(CloseManager(product.manager), TVS_OK);
    product.manager = second;
    {
        const PrinterSide printer(RecordOf(second), [](const std::string&, const std::string&) { return -5; });
        EXPECT_TRUE(product.IsTold());
        EXPECT_EQ(product.Result(1), -5);
    }
    // Nobody answers this one: a detach does not wait for a minute.
    EXPECT_EQ(product.StartWrite(), TVS_OK);
    const double before = NowMs();
    DetachProcess();
    EXPECT_LT(NowMs() - before, 20000);
    EXPECT_TRUE(product.IsTold(0));
}

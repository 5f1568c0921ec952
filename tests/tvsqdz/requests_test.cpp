// Asynchronous requests: their codes in their order, their results, and what they survive.
#include "base/timings.h"
#include "printer_side.h"
#include "product/client_kinds.h"

namespace {

constexpr uint32_t kDone = 0x8001;
const Bytes kEmptyList = Joined({Number(4), Number(0)});

struct Requests : OpenedReady {
    int32_t StartRead() { return GetReqPrinterStatusEventA(manager, "DNumber", event); }
    int32_t StartWrite(const Bytes& value = Number(7), const char* variable = "DNumber") {
        return SetReqPrinterStatusEventA(manager, variable, value.data(), static_cast<uint32_t>(value.size()), event,
                                         &number);
    }
    int32_t StartMessageWrite() {
        const uint32_t value = 9;
        return SetReqPrinterStatusMsgA(manager, "DNumber", &value, sizeof value, window, kDone, &number);
    }
    bool IsTold() {
        const bool told = IsSet(event, 20000);
        ResetEvent(event);
        return told;
    }
    bool IsPosted() {
        MSG message = {};
        return TakeMessage(message, window) && message.message == kDone && message.wParam == 0 && message.lParam == 0;
    }
    Bytes Results() const { return StoredBytes(database, "ReqResult"); }

    HANDLE event = NewEvent(true);
    HWND window = MakeWindow("Requester");
    uint32_t number = 5;
};

} // namespace

// What direct reads and writes answer too is looked at with them.
TEST_F(Requests, AnswersComeInTheirOrder) {
    const uint32_t processKinds = g_processKindMask;
    const uint32_t value = 1;
    const auto check = [&](TvsManager of, const char* variable, int32_t byEvent, int32_t byMessage) {
        EXPECT_EQ(GetReqPrinterStatusEventA(of, variable, event), byEvent) << variable;
        EXPECT_EQ(GetReqPrinterStatusMsgA(of, variable, window, kDone), byMessage) << variable;
        EXPECT_EQ(SetReqPrinterStatusEventA(of, variable, &value, 4, event, &number), byEvent) << variable;
        EXPECT_EQ(std::exchange(number, 5), 0u) << "set to none before anything else";
        EXPECT_EQ(SetReqPrinterStatusMsgA(of, variable, &value, 4, window, kDone, &number), byMessage) << variable;
        EXPECT_EQ(std::exchange(number, 5), 0u);
    };
    SetReady(manager, 0, 0, 8);
    g_processKindMask = 0; // as if all managers were of kinds that relay
    RemoveKindBits(kOwnerKindBit);
    check(manager + 8, "None", TVS_E_HANDLE, TVS_E_HANDLE);
    check(manager, "None", TVS_E_UNKNOWN, TVS_E_NO_OWNER);
    g_processKindMask = processKinds;
    for (const char* variable : {"None", "JobStatus", "AccessControlList"})
        check(manager, variable, TVS_E_UNKNOWN, TVS_E_UNKNOWN);
    SetReady(manager, 1, 4);
    EXPECT_EQ(StartWrite(BytesOf("all"), "RefreshStatus"), TVS_E_NOT_NOW) << "the spooler takes none";
    EXPECT_EQ(StartWrite(Bytes(8)), TVS_E_UNKNOWN) << "its companion takes 4 bytes";
    EXPECT_EQ(Results(), kEmptyList);
    StoreBytes(database, "ReqResult", Joined({Number(12), Number(1), Number(0xFFFFFFFF), Number(0)}));
    EXPECT_EQ(StartWrite(), TVS_E_MEMORY) << "no number is left";
    EXPECT_EQ(number, 0u);
}

TEST_F(Requests, ReadsAndWritesAreDoneAndTold) {
    const HANDLE go = NewEvent(true);
    const PrinterSide printer(database, [&](const std::string& mailbox, const std::string& text) {
        IsSet(go);
        if (mailbox == "ReadRequest") StoreBytes(database, text, Number(42));
        return text == "DTextW" ? -77 : 0;
    });
    SetEvent(go);
    EXPECT_EQ(StartRead(), TVS_OK);
    EXPECT_TRUE(IsTold());
    EXPECT_EQ(NumberOf(manager, "DNumber"), 42u);
    EXPECT_EQ(GetReqPrinterStatusMsgA(manager, "DNumber", window, kDone), TVS_OK);
    EXPECT_TRUE(IsPosted());

    // A result can be asked for while the request waits, and another request be made.
    ResetEvent(go);
    EXPECT_EQ(StartWrite(), TVS_OK);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(Results(), Joined({Number(12), Number(1), Number(1), Number(0xFFFFFFFF)}));
    EXPECT_EQ(StoredBytes(database, "DNumberW"), Number(7));
    EXPECT_EQ(StartWrite(Text("text"), "DText"), TVS_OK);
    EXPECT_EQ(number, 2u);
    EXPECT_EQ(StartWrite(BytesOf("all"), "RefreshStatus"), TVS_OK);
    EXPECT_EQ(number, 3u);
    EXPECT_EQ(ResultOf(manager, 3), TVS_REQUEST_PENDING) << "asked for too early, and taken";
    SetEvent(go);
    ASSERT_TRUE(WaitUntil([&] { return printer.Requests() == 5; }));
    ASSERT_TRUE(WaitUntil([&] { // the last one's thread has recorded what it could
        return Results() == Joined({Number(20), Number(2), Number(1), Number(0), Number(2), Number(0xFFFFFFB3)});
    }));
    EXPECT_TRUE(IsTold());
    EXPECT_EQ(ResultOf(manager, 2), -77);
    // The next number follows the largest that is left. A message's request has the result 0 from the start.
    ResetEvent(go);
    EXPECT_EQ(StartMessageWrite(), TVS_OK);
    EXPECT_EQ(Results(), Joined({Number(20), Number(2), Number(1), Number(0), Number(2), Number(0)}));
    SetEvent(go);
    EXPECT_TRUE(IsPosted());
    EXPECT_EQ(ResultOf(manager, 2), 0);
    EXPECT_EQ(ResultOf(manager, 1), 0);
    // A window that is gone is told nothing, and nobody will ask for the result.
    ResetEvent(go);
    EXPECT_EQ(StartMessageWrite(), TVS_OK);
    DestroyWindow(window);
    SetEvent(go);
    EXPECT_TRUE(WaitUntil([&] { return Results() == kEmptyList; }));
}

// A request that waits has its value with it: what the printer side finds when its turn comes is its own.
TEST_F(Requests, EachWriteSendsItsOwnValue) {
    const HANDLE go = NewEvent(true);
    std::atomic<int> asked = 0;
    std::vector<Bytes> taken; // to be read once all are told
    const PrinterSide printer(database, [&](const std::string&, const std::string& text) {
        ++asked;
        IsSet(go);
        taken.push_back(StoredBytes(database, text));
        return 0;
    });
    HANDLE ends[3];
    for (uint32_t i = 0; i < 3; ++i) {
        event = ends[i] = NewEvent(true);
        EXPECT_EQ(StartWrite(Number(i)), TVS_OK);
        EXPECT_TRUE(WaitUntil([&] { return asked == 1; })); // the first is with the printer side, the others wait
    }
    EXPECT_EQ(StartWrite(Bytes(8)), TVS_E_UNKNOWN) << "its companion takes 4 bytes";
    SetEvent(go);
    for (const HANDLE end : ends)
        EXPECT_TRUE(IsSet(end, 20000));
    std::sort(taken.begin() + 1, taken.end());
    EXPECT_EQ(taken, (std::vector<Bytes>{Number(0), Number(1), Number(2)}));
}

TEST_F(Requests, WhatIsNotAnsweredEndsAndTheNextGoesOn) {
    g_timings.answerBound = 200;
    g_timings.requestLockBound = 50;
    EXPECT_EQ(StartWrite(), TVS_OK);
    EXPECT_TRUE(IsTold());
    EXPECT_EQ(ResultOf(manager, 1), TVS_E_REQUEST_LOCK);
    // One that cannot have its turn in time, behind one that holds it.
    EXPECT_EQ(StartRead(), TVS_OK);
    event = NewEvent(true);
    EXPECT_EQ(StartWrite(), TVS_OK);
    EXPECT_TRUE(IsTold());
    EXPECT_EQ(ResultOf(manager, 1), TVS_E_REQUEST_LOCK);
    const PrinterSide printer(database);
    EXPECT_EQ(StartRead(), TVS_OK); // waits until the others have let go
    EXPECT_TRUE(IsTold());
}

TEST_F(Requests, ARequestOutlivesItsManagerAndEndsWithTheLibrary) {
    const TvsManager second = OpenPrinter(2, kPrinter, kPowerfulUser);
    EXPECT_EQ(StartWrite(), TVS_OK);
    EXPECT_EQ(CloseManager(manager), TVS_OK);
    manager = second;
    {
        const PrinterSide printer(RecordOf(second)->printerDatabase.handle, [](auto&, auto&) { return -5; });
        EXPECT_TRUE(IsTold());
        EXPECT_EQ(ResultOf(manager, 1), -5);
    }
    // Nobody answers this one: a detach does not wait for a minute.
    EXPECT_EQ(StartWrite(), TVS_OK);
    const double before = NowMs();
    DetachProcess();
    EXPECT_LT(NowMs() - before, 20000);
    EXPECT_TRUE(IsSet(event, 0));
}

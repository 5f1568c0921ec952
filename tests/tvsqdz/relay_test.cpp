// What processes that deliver no messages leave to the printer's owner, and the owner's service thread.
#include "base/timings.h"
#include "campaign.h"
#include "notification_kit.h"
#include "notify/registrations.h"
#include "notify/relayed_registrations.h"
#include "printer_side.h"
#include "product/guards.h"
#include "requests/threads.h"

#include <cstring>
#include <random>
#include <set>

namespace {

constexpr uint32_t kTold = 0x8001; // and the numbers behind it: requests

// A process that relays. Commands: "w" watches, "c" cancels, "d" destroys the window, "x" closes the manager, "l" opens
// one with which the process no longer relays, "rN" and "aN" make N requests in a row and one of that number; each
// answers the status. "h" answers the number of the next message.
CHILD_PROCESS(RelaysToTheOwner) {
    const Library library;
    MakeWindow("TVORPSPWndClass"); // so that no agent is started
    const HWND window = MakeWindow("Registrant");
    TvsManager manager = OpenPrinter(0, kPrinter, kPowerfulUser);
    TvsRegistration registration = 0;
    for (std::string command = child.Hear(); command != "end" && !command.empty(); command = child.Hear()) {
        const auto number = static_cast<uint32_t>(std::atoi(command.c_str() + 1));
        int32_t status = TVS_OK;
        MSG message = {};
        switch (command[0]) {
        case 'w':
            status = SetNotificationMsgA(manager, "JobStatus", window, kTold, &registration);
            break;
        case 'c':
            status = KillNotificationMsg(manager, registration);
            break;
        case 'd':
            DestroyWindow(window);
            break;
        case 'x':
            status = CloseManager(std::exchange(manager, OpenPrinter(0)));
            break;
        case 'l':
            OpenPrinter(2);
            break;
        case 'h':
            status = TakeMessage(message, window) ? static_cast<int32_t>(message.message - kTold) : -1;
            break;
        default:
            for (uint32_t i = command[0] == 'r' ? 1 : number; i <= number && status == TVS_OK; ++i)
                status = GetReqPrinterStatusMsgA(manager, "DNumber", window, kTold + i);
        }
        child.Say(std::to_string(status));
    }
    return CloseManager(manager) + testing::Test::HasFailure();
}

struct Relay : OpenedReady {
    // The owner has taken the registration up when there is a watcher of the variable.
    bool IsServed() const {
        const std::string event = "Global\\TVOR:" + std::string(record->databaseName) + ":JobStatus:Changed";
        return KernelHandle(OpenEventA(SYNCHRONIZE, FALSE, event.c_str())).Get() != nullptr;
    }
    Bytes List() const { return StoredBytes(RecordOf(manager)->printerDatabase.handle, "NotifyMsg"); }
    // The printer's entry keeps the number of an owner that was killed, and the system gives it to another process.
    void ReuseOwnersNumber() const {
        Bytes list = StoredBytes(record->masterDatabase.handle, "PrinterDatabase");
        const Bytes number = Number(GetCurrentProcessId());
        std::copy(number.begin(), number.end(), &list[12]);
        StoreBytes(record->masterDatabase.handle, "PrinterDatabase", list);
    }
    static TestProcess StartOwner() {
        TestProcess process("OpensThePrinterAs", {kPrinter, "6"});
        EXPECT_EQ(process.Hear(), "owner");
        return process;
    }
    const Bytes kEmptyList = Joined({Number(4), Number(0)});
};
using RelayCampaign = Relay;

MessageRegistrationEntry Entry(uint32_t number, HWND window, const char* variable) {
    MessageRegistrationEntry entry = {number, 0, HandleToULong(window), kTold, {}};
    std::strcpy(entry.variableName, variable);
    return entry;
}

} // namespace

TEST_F(Relay, ARegistrantIsToldByTheOwnerWhateverBecomesOfTheService) {
    TestProcess owner = StartOwner();
    TestProcess registrant("RelaysToTheOwner");
    EXPECT_EQ(registrant.Ask("w"), "0");
    EXPECT_TRUE(WaitUntil([&] { return IsServed(); }));
    registrant.Tell("h");
    std::atomic<bool> told = false;
    {
        // Its watcher begins some time after that: it tells of what is written from then on.
        const TestThread writer([&] {
            for (uint32_t value = 1; !told; ++value) {
                EXPECT_EQ(Update(manager, "JobStatus", Number(value)), TVS_OK);
                PauseMs(20);
            }
        });
        EXPECT_EQ(registrant.Hear(), "0");
        told = true;
    }
    const Bytes before = List();
    EXPECT_EQ(before.size(), 56u);
    RestartService();
    EXPECT_EQ(NumberOf(manager, "ModelNumber"), 7u);
    EXPECT_TRUE(WaitUntil([&] { return List() == before; })) << "the owner puts back what it knows";
    EXPECT_EQ(registrant.Ask("h"), "0") << "something may have been missed";
    EXPECT_EQ(registrant.Ask("c"), "0");
    EXPECT_TRUE(WaitUntil([&] { return List() == kEmptyList; })) << "the owner takes out what was cancelled";
    EXPECT_TRUE(WaitUntil([&] { return !IsServed(); }));
    registrant.End();
    owner.End();
}

// Whatever a registration ends with, the owner drops it.
TEST_F(Relay, ARegistrationEndsWithItsManagerItsWindowAndItsProcess) {
    TestProcess owner = StartOwner();
    for (const std::string end : {"x", "d", "kill", "l"}) {
        SCOPED_TRACE(end);
        TestProcess registrant("RelaysToTheOwner");
        EXPECT_EQ(registrant.Ask("w"), "0");
        EXPECT_TRUE(WaitUntil([&] { return IsServed(); }));
        if (end == "kill") {
            registrant.Kill();
        } else {
            EXPECT_EQ(registrant.Ask(end), "0");
        }
        if (end == "l") {
            EXPECT_EQ(registrant.Ask("c"), "0") << "it was relayed";
            EXPECT_EQ(registrant.Ask("c"), "-1") << "it is none of this process's";
        }
        EXPECT_TRUE(WaitUntil([&] { return List() == kEmptyList && !IsServed(); }));
    }
    owner.End();
}

// The owner is killed at any moment of its work: nobody who relays is held up, and what is asked of its successor is
// done.
TEST_F(RelayCampaign, RequestsArePerformedByTheOwnerOrByItsSuccessor) {
    const PrinterSide printer(database, [&](const std::string&, const std::string& text) {
        StoreBytes(database, text, Number(5));
        return 0;
    });
    TestProcess owner = StartOwner();
    TestProcess registrant("RelaysToTheOwner");
    EXPECT_EQ(registrant.Ask("r8"), "0");
    std::set<std::string> told;
    for (int i = 0; i < 8; ++i)
        told.insert(registrant.Ask("h"));
    EXPECT_EQ(told.size(), 8u);
    EXPECT_EQ(printer.Requests(), 8);
    std::mt19937_64 random(Seed());
    owner.Kill();
    ReuseOwnersNumber();
    ASSERT_EQ(registrant.Ask("a9"), "0"); // left while nobody owns the printer
    owner = StartOwner();
    ASSERT_EQ(registrant.Ask("h"), "9") << "the next owner finds it";
    EXPECT_EQ(StoredBytes(database, "RequestMsg"), Bytes(364));
    for (int round = 10; round < 10 + Rounds(3, 1000); ++round) {
        SCOPED_TRACE(round);
        registrant.Tell("r3"); // the numbers 1 to 3; those that the dead one had taken up are never told
        PauseMs(static_cast<int>(random() % 12));
        owner.Kill();
        owner = StartOwner();
        ASSERT_EQ(registrant.Hear(), "0");
        ASSERT_EQ(registrant.Ask("a" + std::to_string(round)), "0");
        std::string next = registrant.Ask("h");
        while (next.size() == 1)
            next = registrant.Ask("h");
        ASSERT_EQ(next, std::to_string(round));
    }
    registrant.End();
}

// What lies in the two variables is anybody's: it is answered with nothing, or with what can be done of it.
TEST_F(Relay, TheOwnerChecksWhatOthersWrote) {
    const TvsManager owner = OpenPrinter(6);
    const PrinterSide printer(database);
    const HANDLE event = NewEvent(true);
    StatusRequest request = {};
    request.requestFlags = REQ_READ | REQ_BY_EVENT; // another process's event: not to be set
    request.target = HandleToULong(event);
    std::memset(request.variableName, 'x', sizeof request.variableName);
    std::memset(request.printerName, 'x', sizeof request.printerName);
    StoreBytes(database, "RequestMsg", BytesOfRecord(request));
    EXPECT_TRUE(WaitUntil([&] { return printer.Requests() == 1; }));
    EXPECT_FALSE(IsSet(event, 100));
    // Entries of unknown variables and without an end, a count that promises more, and one that is good.
    const HWND window = MakeWindow("Registrant");
    MessageRegistrationEntry bad = Entry(1, window, "");
    std::memset(bad.variableName, 'y', sizeof bad.variableName);
    MessageRegistrationEntry good = Entry(2, window, "JobStatus");
    MessageRegistrationEntry same = Entry(3, window, "JobStatus");
    const auto store = [&] {
        StoreBytes(database, "NotifyMsg",
                   Joined({Number(9999), Number(7), BytesOfRecord(bad), BytesOfRecord(good), BytesOfRecord(same)}));
    };
    const auto registration = [&] { return FindMessageRegistration(RecordOf(owner), "JobStatus", window, kTold); };
    store();
    EXPECT_TRUE(WaitUntil([&] { return registration() != 0; }));
    // Both share one registration, which the other keeps when the first is cancelled.
    const TvsRegistration shared = registration();
    good.registrationId = 0;
    store();
    EXPECT_TRUE(WaitUntil([&] {
        return List() == Joined({Number(100), Number(2), BytesOfRecord(bad), BytesOfRecord(same)});
    }));
    EXPECT_EQ(registration(), shared);
    same.registrationId = 0;
    store();
    EXPECT_TRUE(WaitUntil([&] { return registration() == 0; }));
    // The close of the owner waits for nobody who holds the database mutex.
    ASSERT_TRUE(IsSet(record->databaseMutex));
    store();
    PauseMs(50); // the service thread waits for the mutex by now
    const double before = NowMs();
    EXPECT_EQ(CloseManager(owner), TVS_OK);
    EXPECT_LT(NowMs() - before, 2000) << "its thread ended by itself";
    ReleaseMutex(record->databaseMutex);
}

// The machine's opens, queues and lists wait for the mutex: nobody who holds it waits for a thread.
TEST_F(Relay, TheDatabaseMutexIsHeldForNoThread) {
    g_timings.beginWait = 8000; // what one wait for a thread that cannot begin would take
    std::atomic<bool> stop = false;
    const TestThread sampler([&, mutex = record->databaseMutex] {
        while (!stop) {
            EXPECT_TRUE(IsSet(mutex, 2000));
            ReleaseMutex(mutex);
        }
    });
    const TvsManager owner = OpenPrinter(6);
    const HWND window = MakeWindow("Registrant");
    const char* const kNeedTheMutex[] = {"PrintingMyJob", "SpoolingMyJob", "UserAuthority"};
    Bytes list = Joined({Number(148), Number(3)});
    for (const char* variable : kNeedTheMutex)
        list = Joined({list, BytesOfRecord(Entry(1, window, variable))});
    StoreBytes(database, "NotifyMsg", list);
    for (const char* variable : kNeedTheMutex)
        EXPECT_TRUE(
            WaitUntil([&] { return FindMessageRegistration(RecordOf(owner), variable, window, kTold) != 0; }, 30000));
    EXPECT_EQ(CloseManager(owner), TVS_OK);
    stop = true;
}

TEST_F(Relay, AnOwnerOfTwoPrintersThatClosesOneServesTheOther) {
    AddPrinter("Back office", kModel);
    const TvsManager kept = OpenPrinter(6);
    EXPECT_EQ(CloseManager(OpenPrinter(6, "Back office")), TVS_OK);
    EXPECT_EQ(RecordOf(OpenPrinter())->ownerProcessId, GetCurrentProcessId());
    EXPECT_EQ(RecordOf(OpenPrinter(2, "Back office"))->ownerProcessId, 0u);
    const HWND window = MakeWindow("Registrant");
    StoreBytes(database, "NotifyMsg", Joined({Number(52), Number(1), BytesOfRecord(Entry(1, window, "JobStatus"))}));
    EXPECT_TRUE(WaitUntil([&] { return FindMessageRegistration(RecordOf(kept), "JobStatus", window, kTold) != 0; }));
}

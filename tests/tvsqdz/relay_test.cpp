// What processes that deliver no messages leave to the printer's owner, and the owner's service thread.
#include "base/timings.h"
#include "campaign.h"
#include "notification_kit.h"
#include "notify/registrations.h"
#include "notify/relayed_registrations.h"
#include "printer_side.h"
#include "product/client_kinds.h"
#include "product/guards.h"
#include "requests/threads.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <set>

namespace {

constexpr uint32_t kTold = 0x8001; // and the numbers behind it: requests

// Owns the printer until it is told to close.
CHILD_PROCESS(OwnsThePrinter) {
    const Library library;
    const TvsManager manager = OpenPrinter(6);
    child.Say((RecordOf(manager)->flags & ManagerOwnsPrinter) != 0 ? "owner" : "guest");
    child.Hear();
    return CloseManager(manager);
}

// A process that relays. Commands: "watch", "cancel", "read N" (so many requests in a row), "ask N" (one, of that
// number), "hear" (says the number of the next message), "end".
CHILD_PROCESS(RelaysToTheOwner) {
    const Library library;
    const HWND agent = MakeWindow("TVORPSPWndClass"); // so that none is started
    const HWND window = MakeWindow("Registrant");
    TvsManager manager = 0;
    EXPECT_EQ(OpenManagerExA(kPrinter.c_str(), kPowerfulUser, 0, &manager), TVS_OK);
    TvsRegistration registration = 0;
    child.Say("ready");
    for (;;) {
        const std::string command = child.Hear();
        int32_t status = TVS_OK;
        MSG message = {};
        if (command == "watch") status = SetNotificationMsgA(manager, "JobStatus", window, kTold, &registration);
        if (command == "cancel") status = KillNotificationMsg(manager, registration);
        if (command.starts_with("read "))
            for (uint32_t i = 1; i <= std::stoul(command.substr(5)) && status == TVS_OK; ++i)
                status = GetReqPrinterStatusMsgA(manager, "DNumber", window, kTold + i);
        if (command.starts_with("ask "))
            status = GetReqPrinterStatusMsgA(manager, "DNumber", window,
                                             kTold + static_cast<uint32_t>(std::stoul(command.substr(4))));
        if (command == "hear") {
            child.Say(TakeMessage(message, window) ? std::to_string(message.message - kTold) : "nothing");
            continue;
        }
        if (command == "end" || command.empty()) break;
        child.Say(std::to_string(status));
    }
    DestroyWindow(window);
    DestroyWindow(agent);
    return CloseManager(manager) + testing::Test::HasFailure();
}

struct RelayProduct : Product {
    RelayProduct() {
        AddDirectVariables();
        manager = OpenPrinter();
        database = RecordOf(manager)->printerDatabase.handle;
        SetReady(manager);
    }
    Bytes List() const { return StoredBytes(database, "NotifyMsg"); }
    // The printer's entry keeps the number of an owner that was killed.
    void ForgetOwner() const {
        const DatabaseHandle master = RecordOf(manager)->masterDatabase.handle;
        Bytes list(568);
        DWORD size = 0;
        EXPECT_EQ(ReadVariable(master, "PrinterDatabase", list.data(), 568, &size), Answer::Done);
        std::memset(&list[12], 0, 4);
        EXPECT_EQ(WriteVariable(master, "PrinterDatabase", list.data(), 568), Answer::Done);
    }
    TvsManager manager;
    DatabaseHandle database;
};

std::string Ask(TestProcess& process, const std::string& command) {
    process.Tell(command);
    return process.Hear();
}

Bytes BytesOfEntry(const MessageRegistrationEntry& entry) {
    const auto* first = reinterpret_cast<const uint8_t*>(&entry);
    return Bytes(first, first + sizeof entry);
}
Bytes Entry(HWND window, const char* variable) {
    MessageRegistrationEntry entry = {1, 0, HandleToULong(window), kTold, {}};
    std::strcpy(entry.variableName, variable);
    return BytesOfEntry(entry);
}

const Bytes kEmptyList = Joined({Number(4), Number(0)});

} // namespace

TEST(Relay, ARegistrantAnOwnerAndAWriterInThreeProcesses) {
    const RelayProduct product;
    TestProcess owner("OwnsThePrinter");
    EXPECT_EQ(owner.Hear(), "owner");
    TestProcess registrant("RelaysToTheOwner");
    EXPECT_EQ(registrant.Hear(), "ready");
    EXPECT_EQ(Ask(registrant, "watch"), "0");
    // The owner's watcher begins some time after the entry was made: it tells of what is written from then on.
    std::atomic<uint32_t> value = 0;
    registrant.Tell("hear");
    const TestThread writer([&] {
        while (value < 200) {
            EXPECT_EQ(Update(product.manager, "JobStatus", Number(++value)), TVS_OK);
            PauseMs(20);
        }
    });
    EXPECT_EQ(registrant.Hear(), "0");
    value = 200;
    WaitForSingleObject(writer.Handle(), 10000);
    EXPECT_EQ(product.List().size(), 56u);
    EXPECT_EQ(Ask(registrant, "cancel"), "0");
    EXPECT_TRUE(WaitUntil([&] { return product.List() == kEmptyList; })) << "the owner takes out what was cancelled";
    registrant.Tell("end");
    EXPECT_EQ(registrant.Wait(), 0) << registrant.Errors();
    owner.Tell("close");
    EXPECT_EQ(owner.Wait(), 0) << owner.Errors();
}

TEST(Relay, RegistrationsOutliveTheService) {
    SetUpProduct();
    std::optional<Service> service{std::in_place};
    const Library library;
    const TvsManager manager = OpenPrinter();
    TestProcess owner("OwnsThePrinter");
    EXPECT_EQ(owner.Hear(), "owner");
    TestProcess registrant("RelaysToTheOwner");
    EXPECT_EQ(registrant.Hear(), "ready");
    EXPECT_EQ(Ask(registrant, "watch"), "0");
    const auto list = [&] {
        Bytes bytes(4096);
        DWORD size = 0;
        EXPECT_EQ(ReadVariable(RecordOf(manager)->printerDatabase, "NotifyMsg", bytes.data(), 4096, &size),
                  Answer::Done);
        bytes.resize(size);
        return bytes;
    };
    // The owner has taken it up when there is a watcher of the variable.
    const std::string event = "Global\\TVOR:" + std::string(RecordOf(manager)->databaseName) + ":JobStatus:Changed";
    const auto isServed = [&] {
        return static_cast<bool>(KernelHandle(OpenEventA(SYNCHRONIZE, FALSE, event.c_str())));
    };
    EXPECT_TRUE(WaitUntil(isServed));
    const Bytes before = list();
    service->process.Kill();
    service.emplace();
    EXPECT_TRUE(WaitUntil([&] { return list() == before; })) << "the owner puts back what it knows";
    EXPECT_EQ(Ask(registrant, "hear"), "0") << "something may have been missed";
    EXPECT_EQ(Ask(registrant, "cancel"), "0");
    EXPECT_TRUE(WaitUntil([&] { return list() == kEmptyList; }));
    EXPECT_TRUE(WaitUntil([&] { return !isServed(); }));
    registrant.Tell("end");
    EXPECT_EQ(registrant.Wait(), 0) << registrant.Errors();
    owner.Tell("close");
    EXPECT_EQ(owner.Wait(), 0) << owner.Errors();
}

TEST(Relay, RequestsInARowAreAllPerformedAlsoByTheOwnersSuccessor) {
    RelayProduct product;
    std::optional<PrinterSide> printer(std::in_place, RecordOf(product.manager),
                                       [&](const std::string&, const std::string& text) {
                                           StoreBytes(product.database, text, Number(5));
                                           return 0;
                                       });
    TestProcess owner("OwnsThePrinter");
    EXPECT_EQ(owner.Hear(), "owner");
    TestProcess registrant("RelaysToTheOwner");
    EXPECT_EQ(registrant.Hear(), "ready");
    EXPECT_EQ(Ask(registrant, "read 8"), "0");
    std::set<std::string> told;
    for (int i = 0; i < 8; ++i)
        told.insert(Ask(registrant, "hear"));
    EXPECT_EQ(told, (std::set<std::string>{"1", "2", "3", "4", "5", "6", "7", "8"}));
    EXPECT_EQ(printer->Requests(), 8);
    // One is left while nobody owns the printer: the next owner finds it.
    owner.Kill();
    EXPECT_EQ(Ask(registrant, "read 1"), "0");
    product.ForgetOwner();
    TestProcess successor("OwnsThePrinter");
    EXPECT_EQ(successor.Hear(), "owner");
    EXPECT_EQ(Ask(registrant, "hear"), "1");
    EXPECT_EQ(StoredBytes(product.database, "RequestMsg"), Bytes(364));
}

// The owner is killed at any moment of its work: nobody who relays is held up, and what is asked of its successor is
// done.
TEST(RelayCampaign, AKilledOwnerHoldsNobodyUp) {
    RelayProduct product;
    const PrinterSide printer(RecordOf(product.manager), [&](const std::string&, const std::string& text) {
        StoreBytes(product.database, text, Number(5));
        return 0;
    });
    std::mt19937_64 random(Seed());
    TestProcess registrant("RelaysToTheOwner");
    EXPECT_EQ(registrant.Hear(), "ready");
    std::optional<TestProcess> owner(std::in_place, "OwnsThePrinter");
    for (int round = 0; round < Rounds(4, 1000); ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(owner->Hear(), "owner");
        registrant.Tell("read 3"); // the numbers 1 to 3; those that the dead one had taken up are never told
        PauseMs(static_cast<int>(random() % 12));
        owner->Kill();
        product.ForgetOwner();
        owner.emplace("OwnsThePrinter");
        ASSERT_EQ(registrant.Hear(), "0");
        const std::string number = std::to_string(10 + round);
        ASSERT_EQ(Ask(registrant, "ask " + number), "0");
        std::string told;
        do
            told = Ask(registrant, "hear");
        while (told.size() == 1);
        ASSERT_EQ(told, number);
    }
    registrant.Tell("end");
    EXPECT_EQ(registrant.Wait(), 0) << registrant.Errors();
}

// What lies in the two variables is anybody's: it is answered with nothing, or with what can be done of it.
TEST(Relay, TheOwnerChecksWhatOthersWrote) {
    const RelayProduct product;
    const TvsManager owner = OpenPrinter(6);
    std::atomic<int> asked = 0;
    const PrinterSide printer(RecordOf(product.manager), [&](const std::string&, const std::string&) {
        ++asked;
        return 0;
    });
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    StatusRequest request = {};
    request.requestFlags = REQ_READ | REQ_BY_EVENT; // another process's event: not to be set
    request.target = HandleToULong(event);
    std::memset(request.variableName, 'x', sizeof request.variableName);
    std::memset(request.printerName, 'x', sizeof request.printerName);
    EXPECT_EQ(WriteVariable(product.database, "RequestMsg", &request, sizeof request), Answer::Done);
    EXPECT_TRUE(WaitUntil([&] { return asked == 1; }));
    EXPECT_EQ(WaitForSingleObject(event, 100), DWORD{WAIT_TIMEOUT});
    // Entries of unknown variables and without an end, a count that promises more, and one that is good.
    const HWND window = MakeWindow("Registrant");
    MessageRegistrationEntry bad = {1, 0, HandleToULong(window), kTold, {}};
    std::memset(bad.variableName, 'y', sizeof bad.variableName);
    MessageRegistrationEntry good = {2, 0, HandleToULong(window), kTold, "JobStatus"};
    MessageRegistrationEntry same = {3, 0, HandleToULong(window), kTold, "JobStatus"};
    const auto store = [&] {
        StoreBytes(product.database, "NotifyMsg",
                   Joined({Number(9999), Number(7), BytesOfEntry(bad), BytesOfEntry(good), BytesOfEntry(same)}));
    };
    const auto registration = [&] { return FindMessageRegistration(RecordOf(owner), "JobStatus", window, kTold); };
    store();
    EXPECT_TRUE(WaitUntil([&] { return registration() != 0; }));
    // Both share one registration, which the other keeps when the first is cancelled.
    const TvsRegistration shared = registration();
    good.registrationId = 0;
    store();
    EXPECT_TRUE(WaitUntil([&] {
        return product.List() == Joined({Number(100), Number(2), BytesOfEntry(bad), BytesOfEntry(same)});
    }));
    EXPECT_EQ(registration(), shared);
    same.registrationId = 0;
    store();
    EXPECT_TRUE(WaitUntil([&] { return registration() == 0; }));
    // The close of the owner waits for nobody who holds the database mutex.
    const HANDLE held = RecordOf(product.manager)->databaseMutex;
    const HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::atomic<bool> holds = false;
    const TestThread holder([&] {
        EXPECT_EQ(WaitForSingleObject(held, 10000), DWORD{WAIT_OBJECT_0});
        holds = true;
        WaitForSingleObject(release, 20000);
        ReleaseMutex(held);
    });
    ASSERT_TRUE(WaitUntil([&] { return holds.load(); }));
    store();
    PauseMs(50); // the service thread waits for the mutex by now
    const ManagerRecord* record = RecordOf(owner);
    std::atomic<bool> ended = false;
    const TestThread releaser([&] { // the close gives the ownership up under the mutex, so the record stays until then
        ended = WaitUntil([&] { return (record->flags & ManagerServiceRunning) == 0; });
        SetEvent(release);
    });
    EXPECT_EQ(CloseManager(owner), TVS_OK);
    EXPECT_TRUE(ended) << "its thread ended by itself";
}

// The machine's opens, queues and lists wait for the mutex: nobody who holds it waits for a thread.
TEST(Relay, TheDatabaseMutexIsHeldForNoThread) {
    const RelayProduct product;
    g_timings.beginWait = 8000; // what one wait for a thread that cannot begin would take
    const HANDLE mutex = RecordOf(product.manager)->databaseMutex;
    std::atomic<bool> stop = false;
    std::atomic<double> longest = 0;
    std::optional<TestThread> sampler(std::in_place, [&] {
        while (!stop) {
            const double before = NowMs();
            EXPECT_EQ(WaitForSingleObject(mutex, 60000), DWORD{WAIT_OBJECT_0});
            longest = std::max(longest.load(), NowMs() - before);
            ReleaseMutex(mutex);
        }
    });
    const TvsManager owner = OpenPrinter(6);
    const HWND window = MakeWindow("Registrant");
    const char* const kNeedTheMutex[] = {"PrintingMyJob", "SpoolingMyJob", "UserAuthority"};
    Bytes entries;
    for (const char* variable : kNeedTheMutex)
        entries = Joined({entries, Entry(window, variable)});
    StoreBytes(product.database, "NotifyMsg", Joined({Number(148), Number(3), entries}));
    for (const char* variable : kNeedTheMutex)
        EXPECT_TRUE(
            WaitUntil([&] { return FindMessageRegistration(RecordOf(owner), variable, window, kTold) != 0; }, 30000));
    EXPECT_EQ(CloseManager(owner), TVS_OK);
    stop = true;
    sampler.reset();
    EXPECT_LT(longest, 2000) << "ms";
}

TEST(Relay, AnOwnerOfTwoPrintersThatClosesOneServesTheOther) {
    const RelayProduct product;
    AddPrinter("Back office", kModel);
    const TvsManager kept = OpenPrinter(6);
    const TvsManager closed = OpenPrinter(6, "Back office");
    EXPECT_EQ(CloseManager(closed), TVS_OK);
    EXPECT_EQ(RecordOf(OpenPrinter())->ownerProcessId, GetCurrentProcessId());
    EXPECT_EQ(RecordOf(OpenPrinter(2, "Back office"))->ownerProcessId, 0u);
    const HWND window = MakeWindow("Registrant");
    StoreBytes(product.database, "NotifyMsg", Joined({Number(52), Number(1), Entry(window, "JobStatus")}));
    EXPECT_TRUE(WaitUntil([&] { return FindMessageRegistration(RecordOf(kept), "JobStatus", window, kTold) != 0; }));
}

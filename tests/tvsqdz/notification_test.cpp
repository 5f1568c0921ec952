// Registrations: what is watched by whom, what is delivered, what is refused.
#include "base/timings.h"
#include "campaign.h"
#include "manager/variables.h"
#include "notification_kit.h"
#include "notify/registrations.h"
#include "printer_side.h"
#include "product/object_names.h"

#include <optional>

namespace {

// One with a watcher of its own and two without, of which one tells every write.
constexpr const char* kWatched[] = {"PrinterExtStatus", "ModelNumber", "RWResult"};

// Isolated writes of other values, each told once in every form.
void WriteInIsolation(int rounds) {
    const Product product;
    g_timings.changeAwake = 50; // asleep again long before the next write
    g_timings.callbackAwake = 50;
    const TvsManager manager = OpenPrinter();
    for (const char* variable : kWatched) {
        SCOPED_TRACE(variable);
        Registrant byEvent(Form::Event, manager, variable);
        Registrant byMessage(Form::Message, manager, variable);
        Registrant byCallback(Form::Callback, manager, variable);
        Registrant* const all[] = {&byEvent, &byMessage, &byCallback};
        for (int round = 1; round <= rounds; ++round) {
            // The first one follows the registrations at once: they tell from their return on.
            ASSERT_EQ(Update(manager, variable, Number(1000 + round)), TVS_OK);
            for (Registrant* registrant : all)
                ASSERT_EQ(registrant->Told(), 1) << "round " << round;
            ASSERT_EQ(g_calls[0].Value(), Number(1000 + round));
            PauseMs(kQuietMs);
            for (Registrant* registrant : all)
                ASSERT_EQ(registrant->Told(0), 0) << "round " << round;
        }
        // The same value again is told only of a variable that tells every write. (A default watcher that is still
        // awake tells that too.)
        ASSERT_EQ(Update(manager, variable, Number(1000 + rounds)), TVS_OK);
        for (Registrant* registrant : all)
            EXPECT_EQ(registrant->Told(kQuietMs), variable == std::string("RWResult") ? 1 : 0);
    }
}

// What a list is asked to watch, and what becomes of it.
int32_t RegisterList(TvsManager manager, const std::string& names, uint32_t count, TvsRegistration* handle) {
    static const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const std::vector<HANDLE> events(count, event);
    return SetNotificationEventExA(manager, count, names.c_str(), events.data(), handle);
}

} // namespace

TEST(Notification, AnIsolatedWriteIsOneDeliveryInEachForm) {
    WriteInIsolation(2);
}

TEST(NotificationCampaign, IsolatedWritesAreOneDeliveryEach) {
    WriteInIsolation(Rounds(1, 1000));
}

TEST(Notification, ACallbackGetsItsIndexAndTheValueThatIsStored) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const char names[] = "PrinterStatus;AccessControlList;PrinterQueue;ModelNumber";
    const TvsCallback callbacks[] = {CallbackOf(0), CallbackOf(1), CallbackOf(2), CallbackOf(3)};
    const uint32_t withoutValue[] = {0, 0, 0, 1};
    TvsRegistration handle = 0;
    ASSERT_EQ(SetNotificationCallbackExA(manager, 4, names, callbacks, withoutValue, &handle), TVS_OK);
    const auto isTold = [&](int i, const std::string& variable, const Bytes& data, const Bytes& stored) {
        const int before = g_calls[i].count;
        EXPECT_EQ(Update(manager, variable, data), TVS_OK);
        EXPECT_TRUE(WaitUntil([&] { return g_calls[i].count > before && g_calls[i].Value() == stored; })) << variable;
        EXPECT_EQ(g_calls[i].manager, manager);
        EXPECT_EQ(g_calls[i].index, static_cast<uint32_t>(i));
        EXPECT_TRUE(g_calls[i].Variables().ends_with(variable + ";"));
    };
    const Bytes status = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    isTold(0, "PrinterStatus", status, status);
    // One that fits, and ones that do not.
    for (const size_t size : {size_t{8}, size_t{16381}, size_t{300000}}) {
        const Bytes data(size, static_cast<uint8_t>(size));
        const Bytes stored = Joined({Number(static_cast<uint32_t>(size)), data});
        isTold(1, "AccessControlList", data, stored);
        isTold(2, "PrinterQueue", data, stored);
    }
    isTold(3, "ModelNumber", Number(5), {});
    EXPECT_FALSE(g_calls[3].hadValue);
    EXPECT_EQ(KillNotificationCallback(manager, handle), TVS_OK);
    EXPECT_EQ(RegistrationCount(manager), 0);
}

// A database that another model has made may hold larger values than the watcher's buffer.
TEST(Notification, AValueThatIsTooLargeForItsVariableIsNotPassedOn) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const DatabaseHandle database = RecordOf(manager)->printerDatabase.handle;
    // The row says 12 bytes; a composite takes any number.
    StatusVariableDef row = *RecordOf(manager)->variableIndex[0];
    row = {.flags = SVT_RECORD, .size = 12, .callbackThreadProc = VariableCallbackWatch, .name = "Wide"};
    ASSERT_EQ(CreateVariable(database, "Wide", product::kTypeVariableLength, 8, "\4\0\0\0\0\0\0\0"), Answer::Done);
    TvsRegistration handle = 0;
    const DeliveryTarget target = {reinterpret_cast<UINT_PTR>(CallbackOf(0))};
    ASSERT_EQ(AddRegistration(RecordOf(manager), row, DeliveryForm::Callback, target, 0, &handle), TVS_OK);
    const Bytes large(1000, 7);
    ASSERT_EQ(WriteVariable(database, "Wide", large.data(), 1000), Answer::Done);
    EXPECT_TRUE(WaitUntil([] { return g_calls[0].count > 0; })); // under load more than once
    EXPECT_FALSE(g_calls[0].hadValue);
    EXPECT_EQ(g_calls[0].Value(), Bytes());
    EXPECT_EQ(KillNotificationCallback(manager, handle), TVS_OK);
}

// The whole of it, as it is stored; and nothing is taken off.
TEST(Notification, ACallbackOnAQueueGetsAllOfIt) {
    AddModelVariable(kModel, "Queue", 4, 0x10080, Number(0));
    const Product product;
    const TvsManager manager = OpenPrinter();
    const DatabaseHandle database = RecordOf(manager)->printerDatabase.handle;
    ASSERT_EQ(CreateVariable(database, "Queue", product::kTypeVariableLength, 8, "\4\0\0\0\0\0\0\0"), Answer::Done);
    const Registrant registrant(Form::Callback, manager, "Queue");
    const Bytes queue = Joined({Number(12), Number(2), Number(7), Number(8)});
    StoreBytes(database, "Queue", queue);
    EXPECT_TRUE(WaitUntil([&] { return g_calls[0].Value() == queue; }));
    EXPECT_EQ(NumberOf(manager, "Queue"), 7u);
    EXPECT_TRUE(WaitUntil([&] { return g_calls[0].Value() == Joined({Number(8), Number(1), Number(8)}); }));
}

// What pulses do not tell, a look does: here the service pulses nothing, for the test has ended the watch.
TEST(Notification, AWriteDuringACallbackIsTold) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    g_timings.callbackAwake = 1;
    const HANDLE go = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> inside = 0;
    g_calls[0].work = [&] {
        ++inside;
        WaitForSingleObject(go, 10000);
    };
    for (const char* variable : {"ModelNumber", "PrinterExtStatus"}) {
        SCOPED_TRACE(variable);
        const Registrant registrant(Form::Callback, manager, variable);
        inside = 0;
        EXPECT_EQ(Update(manager, variable, Number(100)), TVS_OK);
        ASSERT_TRUE(WaitUntil([&] { return inside == 1; }));
        EXPECT_EQ(UnwatchVariable(RecordOf(manager)->printerDatabase.handle, variable), Answer::Done);
        EXPECT_EQ(Update(manager, variable, Number(200)), TVS_OK);
        SetEvent(go);
        EXPECT_TRUE(WaitUntil([&] { return inside == 2; }));
        EXPECT_EQ(g_calls[0].Value(), Number(200));
        SetEvent(go);
    }
}

// Also one that follows the write before the registration within the same millisecond. Nothing is pulsed here either;
// the first look tells.
TEST(Notification, TheFirstLookTellsWhatWasWrittenBeforeTheFirstWait) {
    constexpr int kVariables = 8;
    const auto nameOf = [](int i) { return "Number" + std::to_string(i); };
    for (int i = 0; i < kVariables; ++i)
        AddModelVariable(kModel, nameOf(i), 4, 0x10004, Number(0));
    const Product product;
    const TvsManager manager = OpenPrinter();
    g_timings.firstLook = 1000; // time enough for what follows
    std::optional<Registrant> registrants[kVariables + 1];
    for (int i = 0; i <= kVariables; ++i) {
        const std::string variable = i < kVariables ? nameOf(i) : "PrinterExtStatus";
        EXPECT_EQ(Update(manager, variable, Number(1)), TVS_OK);
        registrants[i].emplace(Form::Event, manager, variable);
        EXPECT_EQ(UnwatchVariable(RecordOf(manager)->printerDatabase.handle, variable.c_str()), Answer::Done);
        EXPECT_EQ(Update(manager, variable, Number(2)), TVS_OK);
    }
    for (int i = 0; i <= kVariables; ++i)
        EXPECT_EQ(registrants[i]->Told(), 1) << i;
}

TEST(Notification, AListDelegatesTheVariablesThatHaveWatchersOfTheirOwn) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const struct {
        Form form;
        const char* variable;
        uint32_t mode;
    } rows[] = {
        {Form::Event, "PrinterStatus", NOTIFY_DELEGATED},
        {Form::Event, "JobStatus", NOTIFY_DELEGATED},
        {Form::Event, "ModelNumber", NOTIFY_BY_EVENT | NOTIFY_ON_CHANGE},
        {Form::Event, "ReadRequest", NOTIFY_BY_EVENT | NOTIFY_ON_UPDATE},
        {Form::Message, "CurrentStatus", NOTIFY_DELEGATED},
        {Form::Message, "ModelNumber", NOTIFY_BY_MESSAGE | NOTIFY_ON_CHANGE},
        {Form::Message, "RWResult", NOTIFY_BY_MESSAGE | NOTIFY_ON_UPDATE},
        {Form::Callback, "PrintingJobInfo2", NOTIFY_DELEGATED},
        {Form::Callback, "SpoolerQueue", NOTIFY_DELEGATED},
        {Form::Callback, "UserAuthority", NOTIFY_BY_EVENT | NOTIFY_ON_CHANGE},
        {Form::Callback, "TerminateManager", NOTIFY_BY_EVENT | NOTIFY_ON_CHANGE},
        {Form::Callback, "WriteRequest", NOTIFY_BY_EVENT | NOTIFY_ON_UPDATE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.variable);
        // Empty names do not count, and names beyond the count are not looked at.
        const std::string names = std::string(";;") + row.variable + ";;nothing;";
        const HANDLE events[] = {CreateEventA(nullptr, TRUE, FALSE, nullptr)};
        const TvsCallback callbacks[] = {CallbackOf(0)};
        const uint32_t numbers[] = {kMessage};
        TvsRegistration handle = 0;
        int32_t status = TVS_OK;
        if (row.form == Form::Event) status = SetNotificationEventExA(manager, 1, names.c_str(), events, &handle);
        if (row.form == Form::Message)
            status = SetNotificationMsgExA(manager, 1, names.c_str(), nullptr, numbers, &handle);
        if (row.form == Form::Callback)
            status = SetNotificationCallbackExA(manager, 1, names.c_str(), callbacks, numbers, &handle);
        ASSERT_EQ(status, TVS_OK);
        const NotificationEntry& entry = RegistrationAt(handle)->entries[0];
        EXPECT_EQ(entry.mode, row.mode);
        EXPECT_STREQ(entry.variableName, row.variable);
        const bool delegated = row.mode == NOTIFY_DELEGATED;
        ASSERT_EQ(RegistrationCount(manager), delegated ? 2 : 1);
        if (delegated) {
            const ManagerLockHold lock; // the single one stands ahead
            EXPECT_EQ(reinterpret_cast<UINT_PTR>(FindManager(manager)->registrations), entry.target);
        }
        EXPECT_EQ(KillNotificationEvent(manager, handle), TVS_OK);
        EXPECT_EQ(RegistrationCount(manager), 0);
    }
}

TEST(Notification, WhatCannotBeWatchedIsRefusedBeforeAnythingIsRegistered) {
    const Product product;
    const std::string longName(32, 'n');
    AddModelVariable(kModel, longName, 4, 0x10004, Number(1));
    AddModelVariable(kModel, longName.substr(1), 4, 0x10004, Number(1));
    const TvsManager manager = OpenPrinter();
    std::string many;
    for (int i = 0; i < 63; ++i)
        many += "ModelNumber;PrinterStatus;";
    const struct {
        std::string names;
        uint32_t count;
        int32_t status;
    } rows[] = {
        {"PrinterStatus;Nothing", 2, TVS_E_UNKNOWN},
        {"PrinterStatus;printerstatus", 2, TVS_E_UNKNOWN},
        {"PrinterStatus", 2, TVS_E_UNKNOWN},
        {"PrinterStatus;" + longName, 2, TVS_E_UNKNOWN},
        {longName.substr(1), 1, TVS_OK},
        {"", 0, TVS_OK},
        {"Nothing", 0, TVS_OK},
        {";;", 1, TVS_E_UNKNOWN},
        {many + ";ModelNumber", 127, TVS_E_UNKNOWN},
        {many, 126, TVS_OK},
        {many + many, 0xFFFFFFFF, TVS_E_UNKNOWN},
        {std::string(70000, ';') + "ModelNumber", 1, TVS_E_UNKNOWN},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.names.substr(0, 40) + " " + std::to_string(row.count));
        TvsRegistration handle = 0;
        // The array ends where the names do: a count that lies is found out by them.
        EXPECT_EQ(row.count < 1000 ? RegisterList(manager, row.names, row.count, &handle)
                                   : SetNotificationEventExA(manager, row.count, row.names.c_str(), nullptr, &handle),
                  row.status);
        if (row.status == TVS_OK) {
            EXPECT_EQ(RegistrationCount(manager), static_cast<int>(1 + (row.count == 126 ? 63 : 0)));
            EXPECT_EQ(KillNotificationEvent(manager, handle), TVS_OK);
        }
        EXPECT_EQ(RegistrationCount(manager), 0);
    }
    TvsRegistration handle = 0;
    EXPECT_EQ(SetNotificationEventA(manager, "Nothing", nullptr, &handle), TVS_E_UNKNOWN);
    EXPECT_EQ(SetNotificationMsgA(manager, longName.c_str(), nullptr, 1, &handle), TVS_E_UNKNOWN);
    EXPECT_EQ(SetNotificationCallbackA(manager, "ModelNumber", nullptr, 0, &handle), TVS_E_FAULT);
    EXPECT_EQ(SetNotificationEventA(manager + 8, "ModelNumber", nullptr, &handle), TVS_E_HANDLE);
    EXPECT_EQ(SetNotificationMsgA(0, "ModelNumber", nullptr, 1, &handle), TVS_E_HANDLE);
    for (const TvsRegistration none : {TvsRegistration{0}, TvsRegistration{8}, manager})
        EXPECT_EQ(KillNotificationEvent(manager, none), TVS_E_HANDLE);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(RegistrationCount(manager), 0);
    // One manager's registration is not another's.
    const TvsManager other = OpenPrinter();
    Registrant registrant(Form::Event, manager, "ModelNumber");
    EXPECT_EQ(KillNotificationEvent(other, registrant.handle), TVS_E_HANDLE);
    EXPECT_EQ(KillNotificationMsg(manager, registrant.handle), TVS_OK) << "any Kill cancels any local registration";
    registrant.handle = 0;
}

TEST(Notification, WhatWasMissedDuringACallbackIsToldInTheOrderOfTheList) {
    const Product product;
    g_timings.callbackAwake = 60;
    const TvsManager manager = OpenPrinter();
    const HANDLE called = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HANDLE goOn = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    g_calls[0].work = [&] {
        if (g_calls[0].count > 0) return;
        SetEvent(called);
        WaitForSingleObject(goOn, 10000);
    };
    const TvsCallback callbacks[] = {CallbackOf(0), CallbackOf(0), CallbackOf(0)};
    const uint32_t withoutValue[] = {1, 1, 1};
    TvsRegistration handle = 0;
    ASSERT_EQ(
        SetNotificationCallbackExA(manager, 3, "ErrNoPaper;ErrPaperJam;ModelNumber", callbacks, withoutValue, &handle),
        TVS_OK);
    ASSERT_EQ(Update(manager, "ModelNumber", Number(1)), TVS_OK);
    ASSERT_EQ(WaitForSingleObject(called, 10000), DWORD{WAIT_OBJECT_0});
    // Pulsed while nobody waits, later one first.
    ASSERT_EQ(Update(manager, "ErrPaperJam", Number(1)), TVS_OK);
    ASSERT_EQ(Update(manager, "ErrNoPaper", Number(1)), TVS_OK);
    SetEvent(goOn);
    EXPECT_TRUE(WaitUntil([] { return g_calls[0].count == 3; }));
    EXPECT_EQ(KillNotificationCallback(manager, handle), TVS_OK);
    EXPECT_EQ(g_calls[0].Variables(), "ModelNumber;ErrNoPaper;ErrPaperJam;");
}

TEST(Notification, AnEventThatSomebodyLeftSetIsResetAfterAWhile) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const struct {
        const char* variable;
        int deliveries;
    } rows[] = {{"ModelNumber", 103}, {"PrinterExtStatus", 101}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.variable);
        Registrant registrant(Form::Callback, manager, row.variable);
        const product::KernelName name = product::VariableEventName(true, RecordOf(manager)->databaseName, row.variable,
                                                                    product::VariableSignal::Changed);
        const HANDLE event = OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name.text);
        ASSERT_NE(event, nullptr);
        const int before = g_calls[0].count;
        SetEvent(event);
        EXPECT_TRUE(WaitUntil([&] { return WaitForSingleObject(event, 0) == WAIT_TIMEOUT; }));
        PauseMs(kQuietMs);
        EXPECT_EQ(g_calls[0].count - before, row.deliveries);
        CloseHandle(event);
    }
}

TEST(Notification, MessageRegistrationsAreFoundByWhatTheyPost) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    Registrant first(Form::Message, manager, "ModelNumber", 1);
    Registrant second(Form::Event, manager, "ModelNumber");
    const NotificationEntry& entry = RegistrationAt(first.handle)->entries[0];
    const HWND window = reinterpret_cast<HWND>(entry.target);
    ManagerRecord* record = RecordOf(manager);
    EXPECT_EQ(FindMessageRegistration(record, "ModelNumber", window, kMessage + 1), first.handle);
    EXPECT_EQ(FindMessageRegistration(record, "ModelNumber", window, kMessage), 0u);
    EXPECT_EQ(FindMessageRegistration(record, "Port", window, kMessage + 1), 0u);
    EXPECT_EQ(FindMessageRegistration(record, "ModelNumber", nullptr, kMessage + 1), 0u);
}

// Registrations: what is watched by whom, what is delivered, what is refused.
#include "campaign.h"
#include "manager/variables.h"
#include "not_here.h"
#include "notification_kit.h"
#include "notify/registrations.h"
#include "product/object_names.h"

namespace {

using NotificationCampaign = Opened;
struct Notification : Opened {
    // Calls the callback with each of the names, with and without the value.
    TvsRegistration RegisterCalls(const std::string& names, std::vector<int> numbers, std::vector<uint32_t> without) {
        std::vector<TvsCallback> callbacks;
        for (const int number : numbers)
            callbacks.push_back(CallbackOf(number));
        TvsRegistration handle = 0;
        EXPECT_EQ(SetNotificationCallbackExA(manager, static_cast<uint32_t>(callbacks.size()), names.c_str(),
                                             callbacks.data(), without.data(), &handle),
                  TVS_OK);
        return handle;
    }
};

} // namespace

// One with a watcher of its own and two without, of which one tells every write. Each has several watchers in this
// process, and a client asks for write times all the while.
TEST_F(NotificationCampaign, IsolatedWritesAreOneDeliveryEachInEachForm) {
    constexpr const char* kWatched[] = {"PrinterExtStatus", "ModelNumber", "RWResult"};
    std::vector<std::unique_ptr<Registrant>> registrants;
    for (int i = 0; i < 3; ++i) {
        for (const Form form : kForms)
            registrants.push_back(std::make_unique<Registrant>(form, manager, kWatched[i], i));
        for (int more = 0; more < 5; ++more)
            registrants.push_back(std::make_unique<Registrant>(Form::Event, manager, kWatched[i]));
    }
    const size_t each = registrants.size() / 3;
    std::atomic<bool> isOver = false;
    const TestThread asker([&] {
        SYSTEMTIME time;
        while (!isOver)
            GetPrinterStatusInfoA(manager, "ModelNumber", &time);
    });
    const auto write = [&](uint32_t value, bool isAnother) {
        // The first one follows the registrations at once: they tell from their return on.
        for (const char* variable : kWatched)
            ASSERT_EQ(Update(manager, variable, Number(value)), TVS_OK);
        // The same value again is told only of a variable that tells every write.
        for (size_t i = isAnother ? 0 : 2 * each; i < registrants.size(); ++i)
            ASSERT_EQ(registrants[i]->Told(), 1) << value << " " << i;
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(g_calls[i].Value(), Number(value));
        PauseMs(kQuietMs);
        for (size_t i = 0; i < registrants.size(); ++i)
            ASSERT_EQ(registrants[i]->Told(0), 0) << value << " " << i;
    };
    const auto rounds = static_cast<uint32_t>(Rounds(2, 1000));
    for (uint32_t round = 1; round <= rounds; ++round)
        write(1000 + round, true);
    write(1000 + rounds, false);
    isOver = true;
}

TEST_F(Notification, ACallbackGetsItsIndexAndTheValueThatIsStored) {
    const TvsRegistration handle =
        RegisterCalls("PrinterStatus;AccessControlList;PrinterQueue;ModelNumber", {0, 1, 2, 3}, {0, 0, 0, 1});
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

TEST_F(Notification, AValueThatIsTooLargeIsNotPassedOnAndAQueueIsAllOfIt) {
    // A database that another model has made may hold larger values than the watcher's buffer: here of 12 bytes.
    StatusVariableDef row = *record->variableIndex[0];
    row = {.flags = SVT_RECORD, .size = 12, .callbackThreadProc = VariableCallbackWatch, .name = "Wide"};
    const char empty[] = "\4\0\0\0\0\0\0";
    ASSERT_EQ(CreateVariable(database, "Wide", product::kTypeVariableLength, 8, empty), Answer::Done);
    TvsRegistration handle = 0;
    const DeliveryTarget target = {reinterpret_cast<UINT_PTR>(CallbackOf(0))};
    ASSERT_EQ(AddRegistration(record, row, DeliveryForm::Callback, target, 0, &handle), TVS_OK);
    StoreBytes(database, "Wide", Bytes(1000, 7));
    EXPECT_TRUE(WaitUntil([] { return g_calls[0].count > 0; })); // under load more than once
    EXPECT_FALSE(g_calls[0].hadValue);
    EXPECT_EQ(g_calls[0].Value(), Bytes());
    EXPECT_EQ(KillNotificationCallback(manager, handle), TVS_OK);
    // As it is stored; and nothing is taken off.
    ASSERT_EQ(CreateVariable(database, "Q", product::kTypeVariableLength, 8, empty), Answer::Done);
    const Registrant registrant(Form::Callback, manager, "Q", 1);
    const Bytes queue = Joined({Number(12), Number(2), Number(7), Number(8)});
    StoreBytes(database, "Q", queue);
    EXPECT_TRUE(WaitUntil([&] { return g_calls[1].Value() == queue; }));
    EXPECT_EQ(StoredBytes(database, "Q"), queue);
}

// Those of before the first wait too: a registration tells from its return on.
TEST_F(Notification, WritesDuringACallbackAreToldByOneMore) {
    const HANDLE go = NewEvent();
    std::atomic<int> inside = 0;
    g_calls[0].work = [&] {
        ++inside;
        IsSet(go);
    };
    for (const char* variable : {"ModelNumber", "PrinterExtStatus", "RWResult"}) {
        SCOPED_TRACE(variable);
        const Registrant registrant(Form::Callback, manager, variable);
        inside = 0;
        EXPECT_EQ(Update(manager, variable, Number(100)), TVS_OK);
        ASSERT_TRUE(WaitUntil([&] { return inside == 1; }));
        for (const uint32_t value : {200, 300, 400})
            EXPECT_EQ(Update(manager, variable, Number(value)), TVS_OK);
        SetEvent(go);
        EXPECT_TRUE(WaitUntil([&] { return inside == 2; }));
        EXPECT_EQ(g_calls[0].Value(), Number(400));
        SetEvent(go);
        PauseMs(kQuietMs);
        EXPECT_EQ(inside, 2);
    }
}

// Whoever may signal a variable's event is taken for the service, also while the service writes.
TEST_F(Notification, ASignalThatSomebodyElseGivesIsOneDelivery) {
    NeedsTheLayer("a pulse for who is on the way back to its wait"); // no write stands behind it that a look would find
    for (const char* variable : {"ModelNumber", "PrinterExtStatus"}) {
        SCOPED_TRACE(variable);
        Registrant registrant(Form::Event, manager, variable);
        const product::KernelName name =
            product::VariableEventName(true, record->databaseName, variable, product::VariableSignal::Changed);
        const KernelHandle event(OpenEventA(EVENT_MODIFY_STATE, FALSE, name.text));
        ASSERT_TRUE(event);
        for (uint32_t round = 1; round <= 3; ++round) {
            EXPECT_EQ(Update(manager, variable, Number(round)), TVS_OK);
            EXPECT_EQ(registrant.Told(), 1);
            PulseEvent(event.Get());
            EXPECT_EQ(registrant.Told(), 1);
        }
        EXPECT_EQ(registrant.Told(kQuietMs), 0);
    }
}

TEST_F(Notification, AListDelegatesTheVariablesThatHaveWatchersOfTheirOwn) {
    const std::tuple<Form, const char*, uint32_t> rows[] = {
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
    void* const events[] = {NewEvent()};
    const uint32_t numbers[] = {kMessage};
    for (const auto& [form, variable, mode] : rows) {
        SCOPED_TRACE(variable);
        // Empty names do not count, and names beyond the count are not looked at.
        const std::string names = std::string(";;") + variable + ";;nothing;";
        TvsRegistration handle = 0;
        if (form == Form::Event) {
            ASSERT_EQ(SetNotificationEventExA(manager, 1, names.c_str(), events, &handle), TVS_OK);
        } else if (form == Form::Message) {
            ASSERT_EQ(SetNotificationMsgExA(manager, 1, names.c_str(), nullptr, numbers, &handle), TVS_OK);
        } else {
            handle = RegisterCalls(names, {0}, {0});
        }
        const NotificationEntry& entry = RegistrationAt(handle)->entries[0];
        EXPECT_EQ(entry.mode, mode);
        EXPECT_STREQ(entry.variableName, variable);
        const bool delegated = mode == NOTIFY_DELEGATED;
        ASSERT_EQ(RegistrationCount(manager), delegated ? 2 : 1);
        if (delegated) {
            const ManagerLockHold lock; // the single one stands ahead
            EXPECT_EQ(reinterpret_cast<UINT_PTR>(record->registrations), entry.target);
        }
        EXPECT_EQ(KillNotificationEvent(manager, handle), TVS_OK);
        EXPECT_EQ(RegistrationCount(manager), 0);
    }
}

TEST_F(Notification, WhatCannotBeWatchedIsRefusedBeforeAnythingIsRegistered) {
    const std::string longName(32, 'n');
    AddPrinter("Other", "Long names");
    AddModelVariable("Long names", longName, 4, 0x10004, Number(1));
    AddModelVariable("Long names", longName.substr(1), 4, 0x10004, Number(1));
    manager = OpenPrinter(2, "Other");
    std::string many;
    for (int i = 0; i < 63; ++i)
        many += "PageCount;PrinterStatus;";
    const std::tuple<std::string, uint32_t, int32_t> rows[] = {
        {"PrinterStatus;Nothing", 2, TVS_E_UNKNOWN},
        {"PrinterStatus;printerstatus", 2, TVS_E_UNKNOWN},
        {"PrinterStatus", 2, TVS_E_UNKNOWN},
        {"PrinterStatus;" + longName, 2, TVS_E_UNKNOWN},
        {longName.substr(1), 1, TVS_OK},
        {"", 0, TVS_OK},
        {"Nothing", 0, TVS_OK},
        {";;", 1, TVS_E_UNKNOWN},
        {many + ";PageCount", 127, TVS_E_UNKNOWN},
        {many, 126, TVS_OK},
        {many + many, 0xFFFFFFFF, TVS_E_UNKNOWN},
        {std::string(70000, ';') + "PageCount", 1, TVS_E_UNKNOWN},
    };
    const std::vector<HANDLE> events(128, NewEvent());
    TvsRegistration handle = 0;
    for (const auto& [list, length, status] : rows) {
        SCOPED_TRACE(list.substr(0, 40) + " " + std::to_string(length));
        // The array ends where the names do: a count that lies is found out by them.
        void* const* const array = length < 1000 ? events.data() : nullptr;
        EXPECT_EQ(SetNotificationEventExA(manager, length, list.c_str(), array, &handle), status);
        if (status == TVS_OK) {
            EXPECT_EQ(RegistrationCount(manager), length == 126 ? 64 : 1);
            EXPECT_EQ(KillNotificationEvent(manager, handle), TVS_OK);
        }
        EXPECT_EQ(RegistrationCount(manager), 0);
    }
    handle = 0;
    EXPECT_EQ(SetNotificationEventA(manager, "Nothing", nullptr, &handle), TVS_E_UNKNOWN);
    EXPECT_EQ(SetNotificationMsgA(manager, longName.c_str(), nullptr, 1, &handle), TVS_E_UNKNOWN);
    EXPECT_EQ(SetNotificationCallbackA(manager, "PageCount", nullptr, 0, &handle), TVS_E_FAULT);
    EXPECT_EQ(SetNotificationEventA(manager + 8, "PageCount", nullptr, &handle), TVS_E_HANDLE);
    EXPECT_EQ(SetNotificationMsgA(0, "PageCount", nullptr, 1, &handle), TVS_E_HANDLE);
    for (const TvsRegistration none : {TvsRegistration{0}, TvsRegistration{8}, manager})
        EXPECT_EQ(KillNotificationEvent(manager, none), TVS_E_HANDLE);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(RegistrationCount(manager), 0);
    // One manager's registration is not another's.
    Registrant registrant(Form::Event, manager, "PageCount");
    EXPECT_EQ(KillNotificationEvent(OpenPrinter(), registrant.handle), TVS_E_HANDLE);
    EXPECT_EQ(KillNotificationMsg(manager, registrant.handle), TVS_OK) << "any Kill cancels any local registration";
    registrant.handle = 0;
}

TEST_F(Notification, WhatWasMissedDuringACallbackIsToldInTheOrderOfTheList) {
    const HANDLE called = NewEvent();
    const HANDLE goOn = NewEvent();
    g_calls[0].work = [&] {
        if (g_calls[0].count > 0) return;
        SetEvent(called);
        IsSet(goOn);
    };
    const TvsRegistration handle = RegisterCalls("ErrNoPaper;ErrPaperJam;ModelNumber", {0, 0, 0}, {1, 1, 1});
    ASSERT_EQ(Update(manager, "ModelNumber", Number(1)), TVS_OK);
    ASSERT_TRUE(IsSet(called));
    // Pulsed while nobody waits, later one first.
    ASSERT_EQ(Update(manager, "ErrPaperJam", Number(1)), TVS_OK);
    ASSERT_EQ(Update(manager, "ErrNoPaper", Number(1)), TVS_OK);
    SetEvent(goOn);
    EXPECT_TRUE(WaitUntil([] { return g_calls[0].count == 3; }));
    EXPECT_EQ(KillNotificationCallback(manager, handle), TVS_OK);
    EXPECT_EQ(g_calls[0].Variables(), "ModelNumber;ErrNoPaper;ErrPaperJam;");
}

TEST_F(Notification, AnEventThatSomebodyLeftSetIsResetAfterAWhile) {
    const std::pair<const char*, int> rows[] = {{"ModelNumber", 103}, {"PrinterExtStatus", 101}};
    for (const auto& [variable, deliveries] : rows) {
        SCOPED_TRACE(variable);
        Registrant registrant(Form::Callback, manager, variable);
        const product::KernelName name =
            product::VariableEventName(true, record->databaseName, variable, product::VariableSignal::Changed);
        const HANDLE event = OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name.text);
        ASSERT_NE(event, nullptr);
        const int before = g_calls[0].count;
        SetEvent(event);
        EXPECT_TRUE(WaitUntil([&] { return !IsSet(event, 0); }));
        PauseMs(kQuietMs);
        EXPECT_EQ(g_calls[0].count - before, deliveries);
        CloseHandle(event);
    }
}

TEST_F(Notification, MessageRegistrationsAreFoundByWhatTheyPost) {
    Registrant first(Form::Message, manager, "ModelNumber", 1);
    Registrant second(Form::Event, manager, "ModelNumber");
    const HWND window = reinterpret_cast<HWND>(RegistrationAt(first.handle)->entries[0].target);
    EXPECT_EQ(FindMessageRegistration(record, "ModelNumber", window, kMessage + 1), first.handle);
    EXPECT_EQ(FindMessageRegistration(record, "ModelNumber", window, kMessage), 0u);
    EXPECT_EQ(FindMessageRegistration(record, "Port", window, kMessage + 1), 0u);
    EXPECT_EQ(FindMessageRegistration(record, "ModelNumber", nullptr, kMessage + 1), 0u);
}

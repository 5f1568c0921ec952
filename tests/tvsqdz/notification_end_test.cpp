// How registrations end: cancelled, from inside and outside, with their manager, and when a callback does not return.
#include "base/timings.h"
#include "campaign.h"
#include "holdings.h"
#include "notification_kit.h"
#include "private_machine.h"
#include "product/object_names.h"

namespace {

// Nothing more than before, once the service has followed.
void ExpectHeld(const Holdings& before) {
    EXPECT_TRUE(WaitUntil([&] { return HeldNow().IsWithin(before); })) << HeldNow() << "; before: " << before;
}

// The layer keeps the connections of threads that have ended for the next ones, as many as ever called at once, and the
// message queue of a thread that once had a window.
// Its watchers are waited for: a thread that the library has seen end is still the kernel's for a moment.
void WarmUp(TvsManager manager) {
    {
        const TestThread first([] {});
    } // a sanitizer's own thread comes with the first
    const long threads = HeldNow().threads;
    {
        Registrant registrants[] = {{Form::Event, manager, "JobStatus"},
                                    {Form::Event, manager, "JobStatus"},
                                    {Form::Message, manager, "JobStatus"},
                                    {Form::Message, manager, "JobStatus"}};
        for (Registrant& registrant : registrants)
            EXPECT_EQ(Update(manager, "JobStatus", Number(registrant.handle & 0xFFFF)), TVS_OK);
        for (Registrant& registrant : registrants)
            EXPECT_GT(registrant.Told(), 0);
    }
    EXPECT_TRUE(WaitUntil([&] { return HeldNow().threads <= threads; }));
}

// The service has no watch of it any more, and nobody else the event.
bool IsUnwatched(const std::string& database, const char* variable) {
    for (const auto signal : {product::VariableSignal::Updated, product::VariableSignal::Changed}) {
        const HANDLE event =
            OpenEventA(SYNCHRONIZE, FALSE, product::VariableEventName(true, database, variable, signal).text);
        if (event == nullptr) continue;
        CloseHandle(event);
        return false;
    }
    return true;
}

// Writes other values all the time.
class Writer {
public:
    Writer(TvsManager manager, const char* variable)
        : m_thread([this, manager, variable] {
              for (uint32_t value = 1; !m_stop; ++value)
                  Update(manager, variable, Number(value));
          }) {}
    ~Writer() { m_stop = true; }

private:
    std::atomic<bool> m_stop = false;
    TestThread m_thread;
};

// What is in the way of a callback that is to be stopped.
void Stuck() {
    Sleep(INFINITE);
}
TvsManager g_asked;
void AskForEver() {
    SYSTEMTIME time;
    for (;;)
        GetPrinterStatusInfoA(g_asked, "ModelNumber", &time);
}

} // namespace

TEST(NotificationEnd, ACallbackMayCancelItselfOrCloseItsManager) {
    const Product product;
    g_timings.cancelWait = g_timings.closeWait = 60000; // nobody waits for himself
    const TvsManager writer = OpenPrinter();
    WarmUp(writer);
    const struct {
        const char* what;
        const char* names;   // of a list; null: one registration
        const char* written; // whose callback does it
        bool closes;
    } rows[] = {
        {"default watcher", nullptr, "ModelNumber", false},
        {"own watcher", nullptr, "PrinterExtStatus", false},
        {"list, in its own callback", "PrinterExtStatus;ModelNumber", "ModelNumber", false},
        {"list, in one that it delegated", "PrinterExtStatus;ModelNumber", "PrinterExtStatus", false},
        {"close", "PrinterExtStatus;ModelNumber", "ModelNumber", true},
        {"close in a delegated one", "PrinterExtStatus;ModelNumber", "PrinterExtStatus", true},
    };
    uint32_t value = 100;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const Holdings before = HeldNow();
        const TvsManager manager = OpenPrinter();
        const int called = g_calls[0].count;
        std::atomic<TvsRegistration> handle = 0;
        std::atomic<int32_t> status = 1;
        g_calls[0].work = [&] {
            status = row.closes ? CloseManager(manager) : KillNotificationCallback(manager, handle);
        };
        TvsRegistration made = 0;
        const TvsCallback callbacks[] = {CallbackOf(0), CallbackOf(0)};
        const uint32_t withoutValue[] = {0, 0};
        ASSERT_EQ(row.names != nullptr
                      ? SetNotificationCallbackExA(manager, 2, row.names, callbacks, withoutValue, &made)
                      : SetNotificationCallbackA(manager, row.written, CallbackOf(0), 0, &made),
                  TVS_OK);
        handle = made;
        EXPECT_EQ(Update(writer, row.written, Number(++value)), TVS_OK);
        EXPECT_TRUE(WaitUntil([&] { return g_calls[0].count > called; }));
        EXPECT_EQ(status, TVS_OK);
        EXPECT_EQ(Update(writer, "ModelNumber", Number(++value)), TVS_OK);
        EXPECT_EQ(Update(writer, "PrinterExtStatus", Number(++value)), TVS_OK);
        if (!row.closes) {
            EXPECT_EQ(KillNotificationCallback(manager, made), TVS_E_HANDLE);
            EXPECT_EQ(RegistrationCount(manager), 0);
            EXPECT_EQ(CloseManager(manager), TVS_OK);
        }
        ExpectHeld(before);
        EXPECT_EQ(g_calls[0].count, called + 1) << "the callback that cancelled was the last";
    }
}

TEST(NotificationEnd, NothingIsDeliveredAfterACancelAndNothingIsLeftBehind) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    const std::string database = RecordOf(manager)->databaseName;
    WarmUp(manager);
    for (const char* variable : {"ModelNumber", "PrinterExtStatus"}) {
        SCOPED_TRACE(variable);
        const Writer writer(manager, variable);
        WaitUntil([&] { return NumberOf(manager, variable) > 1; });
        const Holdings before = HeldNow();
        for (int round = 0; round < 20; ++round)
            for (const Form form : kForms) {
                Registrant registrant(form, manager, variable);
                ASSERT_GT(registrant.Told(), 0);
                ASSERT_TRUE(HeldNow().objects > before.objects || !OnTheLayer());
                ASSERT_EQ(registrant.Cancel(), TVS_OK);
                registrant.Told(0);
                PauseMs(1); // the writes go on
                ASSERT_EQ(registrant.Told(0), 0);
            }
        ExpectHeld(before);
        EXPECT_TRUE(WaitUntil([&] { return IsUnwatched(database, variable); }));
    }
}

TEST(NotificationEndCampaign, OpeningRegisteringAndCancellingUnderLoadLeavesNothing) {
    const Product product;
    const TvsManager manager = OpenPrinter();
    WarmUp(manager);
    const Writer writer(manager, "ModelNumber");
    const Holdings before = HeldNow();
    const HANDLE events[] = {nullptr, nullptr};
    for (int round = Rounds(1000, 10000); round > 0; --round) {
        const TvsManager another = OpenPrinter();
        TvsRegistration handle = 0;
        ASSERT_EQ(SetNotificationEventExA(another, 2, "ModelNumber;PrinterStatus", events, &handle), TVS_OK);
        if (round % 2 == 0) {
            ASSERT_EQ(KillNotificationEvent(another, handle), TVS_OK);
        }
        ASSERT_EQ(CloseManager(another), TVS_OK);
    }
    ExpectHeld(before);
    EXPECT_TRUE(WaitUntil([&] { return IsUnwatched(RecordOf(manager)->databaseName, "ModelNumber"); }));
}

// A thread that is stopped for good wherever it is takes no lock of the library's with it.
TEST(NotificationEnd, ACallbackThatDoesNotReturnCostsAWaitAndNoMore) {
    const Product product;
    g_timings.cancelWait = 150;
    g_timings.closeWait = 300;
    g_timings.detachBound = 50; // those who were stopped inside a call never leave
    const TvsManager writer = OpenPrinter();
    g_asked = writer;
    uint32_t value = 100;
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        const bool closes = round % 2 != 0;
        const TvsManager manager = OpenPrinter();
        std::atomic<bool> inside = false;
        g_calls[0].work = [&] {
            inside = true;
            // Windows gives back nothing that a stopped thread had locked in a call.
            round < 2 || !OnTheLayer() ? Stuck() : AskForEver();
        };
        Registrant registrant(Form::Callback, manager, "PrinterExtStatus");
        EXPECT_EQ(Update(writer, "PrinterExtStatus", Number(++value)), TVS_OK);
        EXPECT_TRUE(WaitUntil([&] { return inside.load(); }));
        const double before = NowMs();
        EXPECT_EQ(closes ? CloseManager(manager) : registrant.Cancel(), TVS_OK);
        EXPECT_GE(NowMs() - before, closes ? 299 : 149);
        registrant.handle = 0;
        if (!closes) {
            EXPECT_EQ(CloseManager(manager), TVS_OK);
        }
        EXPECT_EQ(NumberOf(writer, "PrinterExtStatus"), value);
    }
}

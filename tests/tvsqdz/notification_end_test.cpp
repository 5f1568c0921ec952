// How registrations end: cancelled, from inside and outside, with their manager, and when a callback does not return.
#include "base/timings.h"
#include "campaign.h"
#include "notification_kit.h"
#include "product/object_names.h"

#include <array>
#include <filesystem>
#include <fstream>

namespace {

// What the process holds that a manager or a registration may take: threads, handles, descriptors, and named objects.
using Holdings = std::array<long, 4>;

Holdings HeldNow() {
    std::error_code error;
    const auto entries = [&](const std::string& path) { return std::filesystem::directory_iterator(path, error); };
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    Holdings held = {std::distance(entries("/proc/self/task"), {}), static_cast<long>(handles),
                     std::distance(entries("/proc/self/fd"), {}), 0};
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        held[3] += line.find("/memfd:TVOR:") != std::string::npos;
    return held;
}

// The layer keeps so many connections of threads that wait or have ended for the next ones.
constexpr long kIdleConnections = 8;

bool IsWithin(const Holdings& held, const Holdings& other) {
    return held[0] <= other[0] && held[1] <= other[1] && held[2] <= other[2] + kIdleConnections && held[3] <= other[3];
}

struct NotificationEnd : Opened {
    // The layer keeps the message queue of a thread that once had a window, the library the sections that were read
    // last.
    NotificationEnd() {
        {
            const TestThread first([] {});
        } // a sanitizer's own thread comes with the first
        EXPECT_EQ(CloseManager(OpenPrinter()), TVS_OK);
        const long threads = HeldNow()[0];
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
        // A thread that the library has seen end is still the kernel's for a moment.
        EXPECT_TRUE(WaitUntil([&] { return HeldNow()[0] <= threads; }));
    }
    // Nothing more than before, once the service has followed.
    static void ExpectHeld(const Holdings& before) {
        EXPECT_TRUE(WaitUntil([&] { return IsWithin(HeldNow(), before); }))
            << testing::PrintToString(HeldNow()) << "; before: " << testing::PrintToString(before);
    }
    // The service has no watch of it any more, and nobody else the event.
    void ExpectUnwatched(const char* variable) {
        for (const auto signal : {product::VariableSignal::Updated, product::VariableSignal::Changed})
            EXPECT_TRUE(WaitUntil([&] {
                const HANDLE event = OpenEventA(
                    SYNCHRONIZE, FALSE, product::VariableEventName(true, record->databaseName, variable, signal).text);
                if (event != nullptr) CloseHandle(event);
                return event == nullptr;
            }));
    }
};
using NotificationEndCampaign = NotificationEnd;

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

} // namespace

TEST_F(NotificationEnd, ACallbackMayCancelItselfOrCloseItsManager) {
    g_timings.cancelWait = g_timings.closeWait = 60000; // nobody waits for himself
    // names: of a list; null: one registration.
    // written: whose callback does it.
    const std::tuple<const char*, const char*, const char*, bool> rows[] = {
        {"default watcher", nullptr, "ModelNumber", false},
        {"own watcher", nullptr, "PrinterExtStatus", false},
        {"list, in its own callback", "PrinterExtStatus;ModelNumber", "ModelNumber", false},
        {"list, in one that it delegated", "PrinterExtStatus;ModelNumber", "PrinterExtStatus", false},
        {"close", "PrinterExtStatus;ModelNumber", "ModelNumber", true},
        {"close in a delegated one", "PrinterExtStatus;ModelNumber", "PrinterExtStatus", true},
    };
    const TvsCallback callbacks[] = {CallbackOf(0), CallbackOf(0)};
    const uint32_t withoutValue[] = {0, 0};
    uint32_t value = 100;
    for (const auto& [what, names, written, closes] : rows) {
        SCOPED_TRACE(what);
        const Holdings before = HeldNow();
        const TvsManager watching = OpenPrinter();
        const int called = g_calls[0].count;
        std::atomic<TvsRegistration> handle = 0;
        std::atomic<int32_t> status = 1;
        g_calls[0].work = [&, closes = closes] {
            status = closes ? CloseManager(watching) : KillNotificationCallback(watching, handle);
        };
        TvsRegistration made = 0;
        ASSERT_EQ(names != nullptr ? SetNotificationCallbackExA(watching, 2, names, callbacks, withoutValue, &made)
                                   : SetNotificationCallbackA(watching, written, CallbackOf(0), 0, &made),
                  TVS_OK);
        handle = made;
        EXPECT_EQ(Update(manager, written, Number(++value)), TVS_OK);
        EXPECT_TRUE(WaitUntil([&] { return g_calls[0].count > called; }));
        EXPECT_EQ(status, TVS_OK);
        EXPECT_EQ(Update(manager, "ModelNumber", Number(++value)), TVS_OK);
        EXPECT_EQ(Update(manager, "PrinterExtStatus", Number(++value)), TVS_OK);
        if (!closes) {
            EXPECT_EQ(KillNotificationCallback(watching, made), TVS_E_HANDLE);
            EXPECT_EQ(RegistrationCount(watching), 0);
            EXPECT_EQ(CloseManager(watching), TVS_OK);
        }
        ExpectHeld(before);
        EXPECT_EQ(g_calls[0].count, called + 1) << "the callback that cancelled was the last";
    }
}

TEST_F(NotificationEnd, NothingIsDeliveredAfterACancelAndNothingIsLeftBehind) {
    for (const char* variable : {"ModelNumber", "PrinterExtStatus"}) {
        SCOPED_TRACE(variable);
        const Writer writer(manager, variable);
        WaitUntil([&] { return NumberOf(manager, variable) > 1; });
        const Holdings before = HeldNow();
        for (int round = 0; round < 20; ++round)
            for (const Form form : kForms) {
                Registrant registrant(form, manager, variable);
                ASSERT_GT(registrant.Told(), 0);
                ASSERT_GT(HeldNow()[3], before[3]);
                ASSERT_EQ(registrant.Cancel(), TVS_OK);
                registrant.Told(0);
                PauseMs(1); // the writes go on
                ASSERT_EQ(registrant.Told(0), 0);
            }
        ExpectHeld(before);
        ExpectUnwatched(variable);
    }
}

TEST_F(NotificationEnd, ACancelAndACloseWakeWatchersThatSleep) {
    g_timings.serviceLook = g_timings.cancelWait = g_timings.closeWait = 60000;
    const DWORD start = GetTickCount();
    const TvsManager quiet = OpenPrinter();
    std::vector<std::unique_ptr<Registrant>> closed;
    for (const Form form : kForms) {
        Registrant cancelled(form, quiet, "JobStatus");
        EXPECT_EQ(cancelled.Cancel(), TVS_OK);
        closed.push_back(std::make_unique<Registrant>(form, quiet, "JobStatus"));
    }
    EXPECT_EQ(CloseManager(quiet), TVS_OK);
    EXPECT_LT(GetTickCount() - start, 30000U) << "nobody woke them";
}

TEST_F(NotificationEndCampaign, OpeningRegisteringAndCancellingUnderLoadLeavesNothing) {
    const Writer writer(manager, "ModelNumber");
    const Holdings before = HeldNow();
    const HANDLE events[] = {nullptr, nullptr};
    for (int round = Rounds(500, 10000); round > 0; --round) {
        const TvsManager another = OpenPrinter();
        TvsRegistration handle = 0;
        ASSERT_EQ(SetNotificationEventExA(another, 2, "ModelNumber;PrinterStatus", events, &handle), TVS_OK);
        if (round % 2 == 0) {
            ASSERT_EQ(KillNotificationEvent(another, handle), TVS_OK);
        }
        ASSERT_EQ(CloseManager(another), TVS_OK);
    }
    ExpectHeld(before);
    ExpectUnwatched("ModelNumber");
}

// A thread that is stopped for good wherever it is takes no lock of the library's with it. A close waits for all
// threads together.
TEST_F(NotificationEnd, ACallbackThatDoesNotReturnCostsAWaitAndNoMore) {
    g_timings.cancelWait = 100;
    g_timings.closeWait = 200;
    g_timings.detachBound = 50; // those who were stopped inside a call never leave
    uint32_t value = 100;
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE(round);
        const bool closes = round % 2 != 0;
        const TvsManager watching = OpenPrinter();
        std::atomic<int> inside = 0;
        g_calls[0].work = [&, asked = manager] {
            ++inside;
            for (SYSTEMTIME time;; ++inside)
                round < 2 ? Sleep(INFINITE) : void(GetPrinterStatusInfoA(asked, "ModelNumber", &time));
        };
        Registrant other(Form::Event, watching, "ModelNumber");
        Registrant registrant(Form::Callback, watching, "PrinterExtStatus");
        std::vector<std::unique_ptr<Registrant>> more;
        while (round == 1 && more.size() < 9)
            more.push_back(std::make_unique<Registrant>(Form::Callback, watching, "PrinterExtStatus"));
        EXPECT_EQ(Update(manager, "PrinterExtStatus", Number(++value)), TVS_OK);
        EXPECT_TRUE(WaitUntil([&] { return inside > static_cast<int>(more.size()); }));
        const double before = NowMs();
        EXPECT_EQ(closes ? CloseManager(watching) : registrant.Cancel(), TVS_OK);
        EXPECT_GE(NowMs() - before, closes ? 199 : 99);
        if (!more.empty()) {
            EXPECT_LT(NowMs() - before, 1500) << "not 200 for each";
        }
        const int stopped = inside;
        PauseMs(5);
        EXPECT_EQ(inside, stopped) << "nothing of it runs on";
        registrant.handle = other.handle = 0;
        for (const auto& each : more)
            each->handle = 0;
        if (!closes) {
            EXPECT_EQ(CloseManager(watching), TVS_OK);
        }
        EXPECT_EQ(NumberOf(manager, "PrinterExtStatus"), value);
    }
}

// Watches: which events are pulsed, and how often; and that nothing that was written last stays untold.
#include "not_here.h"
#include "service_under_test.h"

#include "product/signal_wait.h"

#include <atomic>
#include <functional>
#include <thread>

namespace {

// What has not come by then does not come.
constexpr DWORD kQuietMs = 300;

// The emulated system is one with Terminal Services unless a test says otherwise.
std::string EventName(const std::string& variable, const std::string& signal) {
    return "Global\\TVOR:Database:" + variable + ":" + signal;
}

// The watch event of a variable, created as a watcher would, and how many pulses reached a thread that does nothing but
// wait.
struct PulseCounter {
    PulseCounter(const std::string& variable, const std::string& signal)
        : event(CreateEventA(nullptr, TRUE, FALSE, EventName(variable, signal).c_str())),
          stop(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
        thread = std::thread([this] {
            const HANDLE handles[] = {stop, event};
            while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1)
                ++pulses;
        });
    }
    ~PulseCounter() {
        SetEvent(stop);
        thread.join();
        CloseHandle(stop);
        CloseHandle(event);
    }
    // By whom does something else meanwhile.
    bool IsPulsedWithin(DWORD ms) const { return WaitForSingleObject(event, ms) == WAIT_OBJECT_0; }

    const HANDLE event, stop;
    std::atomic<int> pulses = 0;
    std::thread thread;
};

} // namespace

TEST(Watches, PulseOncePerIsolatedWriteByModeAndForMembers) {
    const Service service;
    const Database database("Database", {{"Number", kTypeNumber, Number(1)},
                                         {"A", kTypeNumber, Number(1)},
                                         {"B", kTypeNumber, Number(1)},
                                         {"Inner", kTypeComposite, {}},
                                         {"Outer", kTypeComposite, {}}});
    ASSERT_EQ(database.Compose("Inner", "B;Late;"), kDone);
    ASSERT_EQ(database.Compose("Outer", "A;Inner;"), kDone);
    ASSERT_EQ(database.Watch("Outer", kOnlyChanges), kDone);
    ASSERT_EQ(database.Watch("A", kEveryWrite), kDone);
    PulseCounter outer("Outer", "Changed"), member("A", "Updated"), updates("Number", "Updated"),
        changes("Number", "Changed");
    const auto unwatch = [&] { return database.Unwatch("Number"); };
    const struct {
        std::function<LONG()> change; // with a write of the number
        DWORD number;
        int pulses[4]; // in all: of the composite, of A, of each write of the number, of its changes
    } rows[] = {
        {[&] { return database.Set("A", 2); }, 2, {1, 1, 0, 0}}, // nobody watches the number yet
        {[&] {
             return database.Watch("Number", kEveryWrite) + database.Watch("Number", kOnlyChanges) +
                    database.Set("B", 2);
         },
         2,
         {2, 1, 1, 0}},
        {[&] { return database.Set("B", 2); }, 3, {2, 1, 2, 1}}, // no change, no member
        {[&] { return unwatch() + database.Add("Late", kTypeByte, {1}); },
         4,
         {3, 1, 3, 1}}, // a member came; the last mode used is the first to end
        {[&] { return unwatch() + database.Write("Outer", Bytes(9, 5)); },
         5,
         {4, 2, 3, 1}},                                                          // one write of three members
        {[&] { return database.Write("Outer", Bytes(9, 5)); }, 6, {4, 3, 3, 1}}, // no change
        {[&] { return database.Compose("Outer", "A;"); }, 7, {5, 3, 3, 1}},      // the list changed
        {[&] { return database.Set("B", 7); }, 8, {5, 3, 3, 1}},                 // no member any more
    };
    const auto pulsed = [&] { return std::vector<int>{outer.pulses, member.pulses, updates.pulses, changes.pulses}; };
    std::vector<int> expected(4);
    for (const auto& row : rows) {
        PauseMs(kQuietMs); // also until the counters wait
        EXPECT_EQ(pulsed(), expected) << row.number;
        EXPECT_EQ(row.change(), kDone);
        EXPECT_EQ(database.Set("Number", row.number), kDone);
        expected.assign(row.pulses, row.pulses + 4);
        EXPECT_TRUE(WaitUntil([&] { return pulsed() == expected; })) << row.number;
    }
    PauseMs(kQuietMs);
    EXPECT_EQ(pulsed(), expected);
    EXPECT_EQ(unwatch(), kNotWatched);
}

TEST(Watches, AreCountedAndRefusedWhereTheyCannotBe) {
    const Service service;
    const std::string longName(250, 'n');
    const Database database(
        "Database",
        {{"Number", kTypeNumber, Number(1)}, {longName.c_str(), kTypeByte, {1}}, {"Squatted", kTypeByte, {1}}});
    EXPECT_EQ(database.Watch("Missing", kEveryWrite), kUnknownVariable);
    EXPECT_EQ(database.Watch("Number", 0), kBadArgument);
    EXPECT_EQ(database.Watch("Number", 3), kBadArgument);
    EXPECT_EQ(database.Watch(longName, kEveryWrite), kEventUnavailable);
    EXPECT_EQ(database.Unwatch(longName), kNotWatched);
    // The layer keeps the names of events for events.
    const HANDLE squatter = CreateMutexA(nullptr, FALSE, EventName("Squatted", "Updated").c_str());
    EXPECT_EQ(squatter == nullptr, OnTheLayer());
    EXPECT_EQ(database.Watch("Squatted", kEveryWrite), OnTheLayer() ? kDone : kEventUnavailable);

    const auto eventExists = [] {
        const HANDLE event = OpenEventA(SYNCHRONIZE, FALSE, EventName("Number", "Updated").c_str());
        if (event) CloseHandle(event);
        return event != nullptr;
    };
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(database.Watch("Number", kEveryWrite), kDone);
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(eventExists()) << "the service holds it while anybody watches";
        EXPECT_EQ(database.Unwatch("Number"), kDone);
    }
    EXPECT_FALSE(eventExists());
    EXPECT_EQ(database.Unwatch("Number"), kNotWatched);
}

// With few watches the writer's call pulses, with many another thread.
TEST(Watches, AreOnePulseForEachIsolatedWriteHoweverManyThereAre) {
    const Service service;
    const Database database("Database", {{"Few", kTypeNumber, Number(0)}, {"Many", kTypeNumber, Number(0)}});
    for (const auto& [name, watches] : {std::pair{"Few", 1}, std::pair{"Many", 9}}) {
        PulseCounter all(name, "Changed");
        for (int i = 0; i < watches; ++i)
            ASSERT_EQ(database.Watch(name, kOnlyChanges), kDone);
        PauseMs(kQuietMs); // until the counter waits
        for (DWORD value = 1; value <= 3; ++value) {
            EXPECT_EQ(database.Set(name, value), kDone);
            EXPECT_TRUE(WaitUntil([&] { return all.pulses == static_cast<int>(value); })) << name;
            database.Info(name); // to ask is nothing
            PauseMs(kQuietMs / 3);
            EXPECT_EQ(all.pulses, static_cast<int>(value)) << name;
        }
    }
}

// Writers flat out, watchers that take their time and remember where they waited: after the last write each sees the
// last value, without looking again on its own.
TEST(Watches, EveryWatcherEndsWithTheLastValue) {
    constexpr int kWatchers = 12; // more than are pulsed at once
    constexpr DWORD kLast = 12345;
    const Service service;
    const Database database("Database", {{"Number", kTypeNumber, Number(0)}});
    std::atomic<DWORD> seen[kWatchers] = {};
    std::atomic<int> ready = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kWatchers; ++i)
        threads.emplace_back([&, i] {
            const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, EventName("Number", "Updated").c_str());
            EXPECT_EQ(database.Watch("Number", kEveryWrite), kDone);
            product::SignalWait signals{nullptr};
            signals.SetEvent(0, event);
            ++ready;
            while (seen[i] != kLast && signals.Wait(10000) == product::Woken::Signalled) {
                signals.Take(0);
                seen[i] = database.NumberIn("Number");
                PauseMs(i); // busy
            }
            CloseHandle(event);
        });
    EXPECT_TRUE(WaitUntil([&] { return ready == kWatchers; }));
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer)
        writers.emplace_back([&] {
            for (DWORD i = 1; i < 500; ++i)
                EXPECT_EQ(database.Set("Number", i), kDone);
        });
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(database.Set("Number", kLast), kDone);
    for (std::thread& watcher : threads)
        watcher.join();
    for (int i = 0; i < kWatchers; ++i)
        EXPECT_EQ(seen[i], kLast) << i;
}

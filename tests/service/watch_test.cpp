// Watches: which events are pulsed, how often, and that nothing that was written last stays untold.
#include "service_under_test.h"

#include <atomic>
#include <thread>

namespace {

constexpr char kDatabase[] = "Database";
// Longer than a burst takes to be closed: what has not come by then does not come.
constexpr DWORD kQuietMs = 400;

bool IsPulsedWithin(HANDLE event, DWORD milliseconds) {
    return WaitForSingleObject(event, milliseconds) == WAIT_OBJECT_0;
}

// Counts the pulses that reach a thread which does nothing but wait.
class PulseCounter {
public:
    explicit PulseCounter(HANDLE event) : m_event(event), m_stop(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
        m_thread = std::thread([this] {
            const HANDLE handles[] = {m_stop, m_event};
            while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1)
                ++m_pulses;
        });
        PauseMs(50); // until it waits: nothing tells that from outside
    }
    ~PulseCounter() {
        SetEvent(m_stop);
        m_thread.join();
        CloseHandle(m_stop);
    }
    int Pulses() const { return m_pulses; }
    // The pulses by the time that no more come.
    int PulsesAtRest() const {
        int pulses = m_pulses;
        for (;;) {
            PauseMs(kQuietMs);
            if (pulses == m_pulses) return pulses;
            pulses = m_pulses;
        }
    }

private:
    HANDLE m_event;
    HANDLE m_stop;
    std::atomic<int> m_pulses = 0;
    std::thread m_thread;
};

} // namespace

TEST(Watches, PulseOncePerIsolatedWriteByMode) {
    const Service service;
    const DWORD handle = ReadyDatabase(kDatabase, {{"Number", kTypeNumber, Number(1)}});
    const HANDLE updated = WatchEvent(kDatabase, "Number", VariableSignal::Updated);
    const HANDLE changed = WatchEvent(kDatabase, "Number", VariableSignal::Changed);
    PulseCounter updates{updated};
    PulseCounter changes{changed};
    EXPECT_EQ(WriteVariable(handle, "Number", Number(2)), kDone);
    EXPECT_EQ(updates.PulsesAtRest() + changes.PulsesAtRest(), 0) << "nobody watches yet";
    EXPECT_EQ(WatchVariable(handle, "Number", kEveryWrite), kDone);
    EXPECT_EQ(WatchVariable(handle, "Number", kOnlyChanges), kDone);
    EXPECT_EQ(WriteVariable(handle, "Number", Number(2)), kDone);
    EXPECT_EQ(updates.PulsesAtRest(), 1);
    EXPECT_EQ(changes.PulsesAtRest(), 0) << "the same bytes";
    EXPECT_EQ(WriteVariable(handle, "Number", Number(3)), kDone);
    EXPECT_EQ(updates.PulsesAtRest(), 2);
    EXPECT_EQ(changes.PulsesAtRest(), 1);
    // The last mode used is the first to end.
    EXPECT_EQ(UnwatchVariable(handle, "Number"), kDone);
    EXPECT_EQ(WriteVariable(handle, "Number", Number(4)), kDone);
    EXPECT_EQ(updates.PulsesAtRest(), 3);
    EXPECT_EQ(changes.PulsesAtRest(), 1);
    EXPECT_EQ(UnwatchVariable(handle, "Number"), kDone);
    EXPECT_EQ(WriteVariable(handle, "Number", Number(5)), kDone);
    EXPECT_EQ(updates.PulsesAtRest(), 3);
    EXPECT_EQ(UnwatchVariable(handle, "Number"), kNotWatched);
    CloseHandle(updated);
    CloseHandle(changed);
}

TEST(Watches, AreCountedAndRefusedWhereTheyCannotBe) {
    const Service service;
    const std::string longName(250, 'n');
    const DWORD handle = ReadyDatabase(
        kDatabase,
        {{"Number", kTypeNumber, Number(1)}, {longName.c_str(), kTypeByte, {1}}, {"Squatted", kTypeByte, {1}}});
    EXPECT_EQ(WatchVariable(handle, "Missing", kEveryWrite), kUnknownVariable);
    EXPECT_EQ(WatchVariable(handle, "Number", 0), kBadArgument);
    EXPECT_EQ(WatchVariable(handle, "Number", 3), kBadArgument);
    EXPECT_EQ(WatchVariable(handle, longName, kEveryWrite), kEventUnavailable);
    const HANDLE mutex =
        CreateMutexA(nullptr, FALSE, VariableEventName(true, kDatabase, "Squatted", VariableSignal::Updated).text);
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(WatchVariable(handle, "Squatted", kEveryWrite), kEventUnavailable);
    EXPECT_EQ(UnwatchVariable(handle, "Squatted"), kNotWatched);
    CloseHandle(mutex);
    EXPECT_EQ(WatchVariable(handle, "Squatted", kEveryWrite), kDone);

    const KernelName name = VariableEventName(true, kDatabase, "Number", VariableSignal::Updated);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(WatchVariable(handle, "Number", kEveryWrite), kDone);
    for (int i = 0; i < 20; ++i) {
        const HANDLE event = OpenEventA(SYNCHRONIZE, FALSE, name.text);
        EXPECT_NE(event, nullptr) << "the service holds the event while anybody watches";
        CloseHandle(event);
        EXPECT_EQ(UnwatchVariable(handle, "Number"), kDone);
    }
    EXPECT_EQ(OpenEventA(SYNCHRONIZE, FALSE, name.text), nullptr);
    EXPECT_EQ(UnwatchVariable(handle, "Number"), kNotWatched);
}

// A watcher that is busy while a burst goes by is told when the writing has stopped. One that misses an isolated write
// is not, unless it had asked for the write time a moment before and does not ask again. With few watches the writer's
// call pulses, with many another thread.
TEST(Watches, ABurstIsClosedByAPulseOfItsOwn) {
    const Service service;
    const DWORD handle = ReadyDatabase(kDatabase, {{"Number", kTypeNumber, Number(0)}});
    const HANDLE event = WatchEvent(kDatabase, "Number", VariableSignal::Changed);
    DWORD value = 0;
    const auto write = [&] {
        EXPECT_EQ(WriteVariable(handle, "Number", Number(++value)), kDone);
        PauseMs(20); // longer than the write's own pulse needs
    };
    for (const int watches : {1, 9}) {
        SCOPED_TRACE(watches);
        for (int i = 0; i < watches; ++i)
            ASSERT_EQ(WatchVariable(handle, "Number", kOnlyChanges), kDone);
        // On a busy machine a pause can outlast the time to the closing pulse: a burst that this test slept through
        // shows nothing.
        const auto burstIsClosed = [&](int writes) {
            PauseMs(kQuietMs); // what was written before is no part of this burst
            for (int i = 0; i < writes; ++i)
                write();
            return IsPulsedWithin(event, 1000);
        };
        for (int writes = 2; writes < 5; ++writes) {
            EXPECT_TRUE(burstIsClosed(writes) || burstIsClosed(writes) || burstIsClosed(writes)) << writes;
            EXPECT_FALSE(IsPulsedWithin(event, kQuietMs)) << "one closing pulse";
        }
        write();
        EXPECT_FALSE(IsPulsedWithin(event, kQuietMs)) << "an isolated write is one pulse";

        VariableInfo info = {};
        EXPECT_EQ(GetVariableInfo(handle, "Number", &info), kDone);
        write();
        EXPECT_TRUE(IsPulsedWithin(event, 5000)) << "a write right after a question";
        EXPECT_EQ(GetVariableInfo(handle, "Number", &info), kDone);
        PauseMs(20);
        EXPECT_FALSE(IsPulsedWithin(event, kQuietMs)) << "it has been asked about";
        for (int i = 0; i < watches; ++i)
            ASSERT_EQ(UnwatchVariable(handle, "Number"), kDone);
    }
    CloseHandle(event);
}

TEST(Watches, OnACompositeFireForItsMembers) {
    const Service service;
    const DWORD handle = ReadyDatabase(kDatabase, {{"A", kTypeNumber, Number(1)},
                                                   {"B", kTypeNumber, Number(1)},
                                                   {"Other", kTypeNumber, Number(1)},
                                                   {"Inner", kTypeComposite, {}},
                                                   {"Outer", kTypeComposite, {}}});
    ASSERT_EQ(SetCompositeMembers(handle, "Inner", "B;Late;"), kDone);
    ASSERT_EQ(SetCompositeMembers(handle, "Outer", "A;Inner;"), kDone);
    ASSERT_EQ(WatchVariable(handle, "Outer", kOnlyChanges), kDone);
    const HANDLE event = WatchEvent(kDatabase, "Outer", VariableSignal::Changed);
    PulseCounter counter{event};
    int expected = 0;
    for (const auto& [name, value, pulses] : {std::tuple{"A", 2u, 1}, {"B", 2u, 1}, {"B", 2u, 0}, {"Other", 2u, 0}}) {
        EXPECT_EQ(WriteVariable(handle, name, Number(value)), kDone);
        expected += pulses;
        EXPECT_EQ(counter.PulsesAtRest(), expected) << name;
    }
    EXPECT_EQ(CreateVariable(handle, "Late", kTypeByte, {1}), kDone);
    EXPECT_EQ(counter.PulsesAtRest(), ++expected) << "a member came";
    EXPECT_EQ(SetCompositeMembers(handle, "Outer", "A;"), kDone);
    EXPECT_EQ(counter.PulsesAtRest(), ++expected) << "the list changed";
    EXPECT_EQ(WriteVariable(handle, "B", Number(7)), kDone);
    EXPECT_EQ(counter.PulsesAtRest(), expected) << "no member any more";
    CloseHandle(event);
}

// Writers flat out, watchers that take their time: after the last write each sees the last value, without looking again
// on its own.
TEST(Watches, EveryWatcherEndsWithTheLastValue) {
    constexpr int kWatchers = 12; // more than are pulsed at once
    constexpr int kWriters = 4;
    const Service service;
    const DWORD handle = ReadyDatabase(kDatabase, {{"Number", kTypeNumber, Number(0)}});
    std::atomic<DWORD> seen[kWatchers] = {};
    std::atomic<int> ready = 0;
    std::vector<std::thread> watchers;
    const HANDLE stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (int i = 0; i < kWatchers; ++i) {
        watchers.emplace_back([&, i] {
            const HANDLE event = WatchEvent(kDatabase, "Number", VariableSignal::Updated);
            EXPECT_EQ(WatchVariable(handle, "Number", kEveryWrite), kDone);
            ++ready;
            const HANDLE handles[] = {stop, event};
            while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
                const Bytes value = ValueOf(handle, "Number");
                seen[i] = value[0] | value[1] << 8u;
                PauseMs(i); // busy
            }
            CloseHandle(event);
        });
    }
    ASSERT_TRUE(WaitUntil([&] { return ready == kWatchers; }));
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer)
        writers.emplace_back([&] {
            for (DWORD i = 1; i < 500; ++i)
                EXPECT_EQ(WriteVariable(handle, "Number", Number(i)), kDone);
        });
    for (std::thread& writer : writers)
        writer.join();
    constexpr DWORD kLast = 12345;
    EXPECT_EQ(WriteVariable(handle, "Number", Number(kLast)), kDone);
    for (int i = 0; i < kWatchers; ++i)
        EXPECT_TRUE(WaitUntil([&] { return seen[i] == kLast; })) << i << " saw " << seen[i];
    SetEvent(stop);
    for (std::thread& watcher : watchers)
        watcher.join();
    CloseHandle(stop);
}

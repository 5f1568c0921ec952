// Watches: which events are pulsed, how often, and that nothing that was written last stays untold.
#include "service_under_test.h"

#include <atomic>
#include <functional>
#include <thread>

namespace {

// Longer than a burst takes to be closed: what has not come by then does not come, and what is written then is no part
// of it.
constexpr DWORD kQuietMs = 300;

// The emulated system is one with Terminal Services unless a test says otherwise.
std::string EventName(const std::string& variable, const std::string& signal) {
    return "Global\\TVOR:Database:" + variable + ":" + signal;
}

bool EventExists(const std::string& name) {
    const HANDLE event = OpenEventA(SYNCHRONIZE, FALSE, name.c_str());
    if (event) CloseHandle(event);
    return event != nullptr;
}

// The watch event of a variable, created as a watcher would.
struct WatchEvent {
    WatchEvent(const std::string& variable, const std::string& signal)
        : handle(CreateEventA(nullptr, TRUE, FALSE, EventName(variable, signal).c_str())) {
        EXPECT_NE(handle, nullptr);
    }
    ~WatchEvent() { CloseHandle(handle); }
    bool IsPulsedWithin(DWORD ms) const { return WaitForSingleObject(handle, ms) == WAIT_OBJECT_0; }
    const HANDLE handle;
};

// Counts the pulses that reach a thread which does nothing but wait.
class PulseCounter {
public:
    PulseCounter(const std::string& variable, const std::string& signal)
        : m_event(variable, signal), m_stop(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
        m_thread = std::thread([this] {
            const HANDLE handles[] = {m_stop, m_event.handle};
            while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1)
                ++pulses;
        });
    }
    ~PulseCounter() {
        SetEvent(m_stop);
        m_thread.join();
        CloseHandle(m_stop);
    }
    std::atomic<int> pulses = 0;

private:
    WatchEvent m_event;
    HANDLE m_stop;
    std::thread m_thread;
};

} // namespace

TEST(Watches, PulseOncePerIsolatedWriteByMode) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(1)}});
    PulseCounter updates{"Number", "Updated"};
    PulseCounter changes{"Number", "Changed"};
    const auto watch = [&](DWORD mode) { EXPECT_EQ(WatchVariable(handle, "Number", mode), kDone); };
    const auto unwatch = [&] { EXPECT_EQ(UnwatchVariable(handle, "Number"), kDone); };
    const struct {
        std::function<void()> before;
        DWORD value;
        int updates, changes; // in all
    } rows[] = {
        {[] {}, 2, 0, 0}, // nobody watches yet
        {[&] { watch(kEveryWrite), watch(kOnlyChanges); }, 2, 1, 0},
        {[] {}, 3, 2, 1},
        {unwatch, 4, 3, 1}, // the last mode used is the first to end
        {unwatch, 5, 3, 1},
    };
    for (const auto& row : rows) {
        row.before();
        PauseMs(kQuietMs); // also until the counters wait
        EXPECT_EQ(WriteVariable(handle, "Number", Number(row.value)), kDone);
        EXPECT_TRUE(WaitUntil([&] { return updates.pulses >= row.updates && changes.pulses >= row.changes; }));
        EXPECT_EQ(updates.pulses, row.updates) << row.value;
        EXPECT_EQ(changes.pulses, row.changes) << row.value;
    }
    PauseMs(kQuietMs);
    EXPECT_EQ(updates.pulses + changes.pulses, 4);
    EXPECT_EQ(UnwatchVariable(handle, "Number"), kNotWatched);
}

TEST(Watches, AreCountedAndRefusedWhereTheyCannotBe) {
    const Service service;
    const std::string longName(250, 'n');
    const DWORD handle = ReadyDatabase(
        "Database",
        {{"Number", kTypeNumber, Number(1)}, {longName.c_str(), kTypeByte, {1}}, {"Squatted", kTypeByte, {1}}});
    EXPECT_EQ(WatchVariable(handle, "Missing", kEveryWrite), kUnknownVariable);
    EXPECT_EQ(WatchVariable(handle, "Number", 0), kBadArgument);
    EXPECT_EQ(WatchVariable(handle, "Number", 3), kBadArgument);
    EXPECT_EQ(WatchVariable(handle, longName, kEveryWrite), kEventUnavailable);
    const HANDLE mutex = CreateMutexA(nullptr, FALSE, EventName("Squatted", "Updated").c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(WatchVariable(handle, "Squatted", kEveryWrite), kEventUnavailable);
    EXPECT_EQ(UnwatchVariable(handle, "Squatted"), kNotWatched);
    CloseHandle(mutex);
    EXPECT_EQ(WatchVariable(handle, "Squatted", kEveryWrite), kDone);

    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(WatchVariable(handle, "Number", kEveryWrite), kDone);
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(EventExists(EventName("Number", "Updated"))) << "the service holds it while anybody watches";
        EXPECT_EQ(UnwatchVariable(handle, "Number"), kDone);
    }
    EXPECT_FALSE(EventExists(EventName("Number", "Updated")));
    EXPECT_EQ(UnwatchVariable(handle, "Number"), kNotWatched);
}

// A watcher that is busy while a burst goes by is told when the writing has stopped. One that misses an isolated write
// is not, unless it had asked for the write time a moment before and does not ask again. With few watches the writer's
// call pulses, with many another thread.
TEST(Watches, ABurstIsClosedByAPulseOfItsOwn) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(0)}});
    const WatchEvent event("Number", "Changed"); // of the busy watcher
    PulseCounter all{"Number", "Changed"};
    DWORD value = 0;
    const auto write = [&] { EXPECT_EQ(WriteVariable(handle, "Number", Number(++value)), kDone); };
    for (const int watches : {1, 9}) {
        SCOPED_TRACE(watches);
        for (int i = 0; i < watches; ++i)
            ASSERT_EQ(WatchVariable(handle, "Number", kOnlyChanges), kDone);
        PauseMs(kQuietMs);
        int before = all.pulses;
        write();
        EXPECT_TRUE(WaitUntil([&] { return all.pulses > before; }));
        EXPECT_FALSE(event.IsPulsedWithin(kQuietMs)) << "an isolated write is one pulse";
        before = all.pulses;
        for (int i = 0; i < 3; ++i)
            write();
        EXPECT_TRUE(event.IsPulsedWithin(5000));
        PauseMs(kQuietMs);
        EXPECT_LE(all.pulses, before + 4) << "one closing pulse";

        VariableInfo info = {};
        EXPECT_EQ(GetVariableInfo(handle, "Number", &info), kDone);
        write();
        EXPECT_TRUE(event.IsPulsedWithin(5000)) << "a write right after a question";
        EXPECT_TRUE(WaitUntil([&] {
            EXPECT_EQ(GetVariableInfo(handle, "Number", &info), kDone);
            return !event.IsPulsedWithin(kQuietMs);
        })) << "until it has been asked about";
        for (int i = 0; i < watches; ++i)
            ASSERT_EQ(UnwatchVariable(handle, "Number"), kDone);
    }
}

TEST(Watches, OnACompositeFireForItsMembers) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"A", kTypeNumber, Number(1)},
                                                    {"B", kTypeNumber, Number(1)},
                                                    {"Other", kTypeNumber, Number(1)},
                                                    {"Inner", kTypeComposite, {}},
                                                    {"Outer", kTypeComposite, {}}});
    ASSERT_EQ(SetCompositeMembers(handle, "Inner", "B;Late;"), kDone);
    ASSERT_EQ(SetCompositeMembers(handle, "Outer", "A;Inner;"), kDone);
    ASSERT_EQ(WatchVariable(handle, "Outer", kOnlyChanges), kDone);
    PulseCounter counter{"Outer", "Changed"};
    ASSERT_EQ(WatchVariable(handle, "A", kEveryWrite), kDone);
    PulseCounter member{"A", "Updated"};
    const auto write = [&](const char* name, DWORD value) { return WriteVariable(handle, name, Number(value)); };
    const struct {
        std::function<LONG()> change;
        int pulses; // in all
        int ofA = 1;
    } rows[] = {
        {[&] { return write("A", 2); }, 1},
        {[&] { return write("B", 2); }, 2},
        {[&] { return write("B", 2) + write("Other", 2); }, 2},              // no change, no member
        {[&] { return CreateVariable(handle, "Late", kTypeByte, {1}); }, 3}, // a member came
        {[&] { return WriteVariable(handle, "Outer", Bytes(9, 5)); }, 4, 2}, // one write of three members
        {[&] { return WriteVariable(handle, "Outer", Bytes(9, 5)); }, 4, 3}, // no change
        {[&] { return SetCompositeMembers(handle, "Outer", "A;"); }, 5, 3},  // the list changed
        {[&] { return write("B", 7); }, 5, 3},                               // no member any more
    };
    for (const auto& row : rows) {
        PauseMs(kQuietMs);
        EXPECT_EQ(counter.pulses, &row == rows ? 0 : (&row)[-1].pulses);
        EXPECT_EQ(member.pulses, &row == rows ? 0 : (&row)[-1].ofA);
        EXPECT_EQ(row.change(), kDone);
        EXPECT_TRUE(WaitUntil([&] { return counter.pulses >= row.pulses && member.pulses >= row.ofA; })) << &row - rows;
    }
    PauseMs(kQuietMs);
    EXPECT_EQ(counter.pulses, 5);
    EXPECT_EQ(member.pulses, 3);
}

// Writers flat out, watchers that take their time: after the last write each sees the last value, without looking again
// on its own.
TEST(Watches, EveryWatcherEndsWithTheLastValue) {
    constexpr int kWatchers = 12; // more than are pulsed at once
    constexpr DWORD kLast = 12345;
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(0)}});
    std::atomic<DWORD> seen[kWatchers] = {};
    std::atomic<int> ready = 0;
    std::vector<std::thread> watchers;
    const HANDLE stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (int i = 0; i < kWatchers; ++i) {
        watchers.emplace_back([&, i] {
            const WatchEvent event("Number", "Updated");
            EXPECT_EQ(WatchVariable(handle, "Number", kEveryWrite), kDone);
            ++ready;
            const HANDLE handles[] = {stop, event.handle};
            while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
                seen[i] = U32At(ValueOf(handle, "Number"), 0);
                PauseMs(i); // busy
            }
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return ready == kWatchers; }));
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer)
        writers.emplace_back([&] {
            for (DWORD i = 1; i < 500; ++i)
                EXPECT_EQ(WriteVariable(handle, "Number", Number(i)), kDone);
        });
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(WriteVariable(handle, "Number", Number(kLast)), kDone);
    for (int i = 0; i < kWatchers; ++i)
        EXPECT_TRUE(WaitUntil([&] { return seen[i] == kLast; })) << i << " saw " << seen[i];
    SetEvent(stop);
    for (std::thread& watcher : watchers)
        watcher.join();
    CloseHandle(stop);
}

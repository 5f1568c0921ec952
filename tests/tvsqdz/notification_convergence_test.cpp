// Nothing that was written last stays untold: writers flat out in processes of their own, watchers of all three forms
// in others, some of them stopped, continued and killed meanwhile.
#include "campaign.h"
#include "machine.h"

#include <algorithm>
#include <random>
#include <sstream>

namespace {

using NotificationConvergenceCampaign = Opened;

constexpr uint32_t kVariables = 40;
constexpr int kWriters = 8;
constexpr int kWatchers = 16;
constexpr int kLostMs = 10000; // what has not come by then never will

std::string NameOf(uint32_t place) {
    return "Load" + std::to_string(place);
}

// The value that a watcher read when it was told.
std::atomic<uint32_t> g_told[kVariables];
TvsManager g_manager;

void ReadAndTell(uint32_t place) {
    uint32_t value = 0;
    uint32_t size = 0;
    if (GetPrinterStatusA(g_manager, NameOf(place).c_str(), &value, sizeof value, &size) == TVS_OK)
        g_told[place] = value;
}

void TVS_CALL OnCall(TvsManager, uint32_t place, const char*, const void* value, uint32_t size) {
    if (value != nullptr && size == sizeof(uint32_t)) g_told[place] = *static_cast<const uint32_t*>(value);
}

// Registers in that form, and serves what is told by it for ever, "0" once it does.
void Watch(const std::string& form, Child& child) {
    std::string names;
    HANDLE events[kVariables];
    TvsCallback callbacks[kVariables];
    uint32_t numbers[kVariables]; // not 0: callbacks without a value
    for (uint32_t i = 0; i < kVariables; ++i) {
        names += NameOf(i) + ";";
        events[i] = NewEvent();
        callbacks[i] = OnCall;
        numbers[i] = form == "message" ? WM_APP + i : 0;
    }
    TvsRegistration registration = 0;
    const HWND window = MakeWindow("Convergence");
    child.Say(std::to_string(
        form == "event" ? SetNotificationEventExA(g_manager, kVariables, names.c_str(), events, &registration)
        : form == "message"
            ? SetNotificationMsgExA(g_manager, kVariables, names.c_str(), window, numbers, &registration)
            : SetNotificationCallbackExA(g_manager, kVariables, names.c_str(), callbacks, numbers, &registration)));
    if (form == "event")
        for (;;)
            ReadAndTell(WaitForMultipleObjects(kVariables, events, FALSE, INFINITE) - WAIT_OBJECT_0);
    for (MSG message; GetMessageA(&message, nullptr, 0, 0) > 0;)
        if (message.message >= WM_APP) ReadAndTell(message.message - WM_APP);
}

// Each line that it hears: the values that all variables have in the end. Answers the first place that was told another
// one, kVariables when there is none.
CHILD_PROCESS(ConvergenceWatcher) {
    const Library library;
    g_manager = OpenPrinter(2, "Loaded");
    const TestThread watcher([&] { Watch(child.arguments[0], child); });
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear()) {
        std::istringstream values(line);
        uint32_t place = 0;
        for (uint32_t expected = 0; values >> expected; ++place)
            if (!WaitUntil([&] { return g_told[place] == expected; }, kLostMs)) break;
        child.Say(std::to_string(place));
    }
    std::_Exit(0); // the test is over; the process ends with whatever still waits
}

// Each line that it hears: a seed and a number of writes.
CHILD_PROCESS(ConvergenceWriter) {
    const Library library;
    g_manager = OpenPrinter(2, "Loaded");
    uint32_t value = static_cast<uint32_t>(std::stoul(child.arguments[0])) << 24;
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear()) {
        std::istringstream order(line);
        uint32_t seed = 0;
        uint32_t count = 0;
        order >> seed >> count;
        std::mt19937 random(seed);
        int32_t status = TVS_OK;
        for (; count > 0 && status == TVS_OK; --count)
            status = Update(g_manager, NameOf(static_cast<uint32_t>(random() % kVariables)), Number(++value));
        child.Say(std::to_string(status));
    }
    return 0;
}

} // namespace

TEST_F(NotificationConvergenceCampaign, EveryWatcherIsToldTheLastValueOfEveryVariable) {
    AddPrinter("Loaded", "Loaded Model");
    for (uint32_t i = 0; i < kVariables; ++i)
        AddModelVariable("Loaded Model", NameOf(i), 4, 0x10004, Number(0));
    manager = OpenPrinter(2, "Loaded");
    std::vector<TestProcess> watchers;
    std::vector<TestProcess> writers;
    constexpr const char* kForms[] = {"event", "message", "callback"};
    for (int i = 0; i < kWatchers; ++i)
        watchers.emplace_back("ConvergenceWatcher", std::vector<std::string>{kForms[i % 3]});
    for (TestProcess& watcher : watchers)
        EXPECT_EQ(watcher.Hear(), "0");
    for (int i = 0; i < kWriters; ++i)
        writers.emplace_back("ConvergenceWriter", std::vector<std::string>{std::to_string(i + 1)});

    // How long after the last write, or the return of the service, all know all values.
    std::vector<DWORD> told;
    const auto allAreTold = [&](DWORD since) {
        std::string line;
        for (uint32_t i = 0; i < kVariables; ++i)
            line += std::to_string(NumberOf(manager, NameOf(i))) + " ";
        for (TestProcess& watcher : watchers)
            watcher.Tell(line);
        for (TestProcess& watcher : watchers)
            EXPECT_EQ(watcher.Hear(3 * kLostMs), std::to_string(kVariables)) << told.size();
        told.push_back(GetTickCount() - since);
    };
    const std::string writes = std::to_string(Rounds(4000, 200000) / kWriters);
    std::mt19937_64 random(Seed());
    for (int round = 0; round < Rounds(2, 100); ++round) {
        for (TestProcess& writer : writers)
            writer.Tell(std::to_string(random() & 0xFFFFFF) + " " + writes);
        // One stands still in the middle; from the second round on one is gone too.
        watchers[random() % watchers.size()].Stop();
        if (round == 1) watchers.pop_back();
        PauseMs(static_cast<int>(random() % 50)); // how long matters not
        for (TestProcess& watcher : watchers)
            watcher.Continue();
        for (TestProcess& writer : writers)
            EXPECT_EQ(writer.Hear(120000), "0");
        allAreTold(GetTickCount());
    }
    RestartService();
    const DWORD restarted = GetTickCount();
    for (uint32_t i = 0; i < kVariables; ++i)
        EXPECT_EQ(Update(manager, NameOf(i), Number(i + 1)), TVS_OK);
    allAreTold(restarted);
    const DWORD afterRestart = told.back();
    std::sort(told.begin(), told.end() - 1);
    std::printf("all were told after the last write: median %lu ms, worst %lu ms; after a restart: %lu ms\n",
                static_cast<unsigned long>(told[(told.size() - 1) / 2]),
                static_cast<unsigned long>(told[told.size() - 2]), static_cast<unsigned long>(afterRestart));
}

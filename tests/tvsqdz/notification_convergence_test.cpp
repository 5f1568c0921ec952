// Nothing that was written last stays untold: writers flat out in processes of their own, watchers of all three forms
// in others, some of them stopped, continued and killed meanwhile.
#include "campaign.h"
#include "machine.h"

#include <algorithm>
#include <atomic>
#include <random>

namespace {

constexpr uint32_t kVariables = 40;
constexpr int kWriters = 8;
constexpr int kWatchers = 16;
const DWORD kLostMs = OnTheLayer() ? 10000 : 60000; // what has not come by then never will

std::string NameOf(uint32_t place) {
    return "Load" + std::to_string(place);
}

std::string AllNames() {
    std::string names;
    for (uint32_t i = 0; i < kVariables; ++i)
        names += NameOf(i) + ";";
    return names;
}

// What a watcher was told: the value that it read when it was, and when that value first came.
struct Told {
    std::atomic<uint32_t> value{0};
    std::atomic<DWORD> tick{0};
} g_told[kVariables];
TvsManager g_manager;

void Tell(uint32_t place, uint32_t value) {
    if (g_told[place].value.exchange(value) != value) g_told[place].tick = GetTickCount();
}

void ReadAndTell(uint32_t place) {
    uint32_t value = 0;
    uint32_t size = 0;
    if (GetPrinterStatusA(g_manager, NameOf(place).c_str(), &value, sizeof value, &size) == TVS_OK) Tell(place, value);
}

void TVS_CALL OnCall(TvsManager, uint32_t place, const char*, const void* value, uint32_t size) {
    if (value != nullptr && size == sizeof(uint32_t)) Tell(place, *static_cast<const uint32_t*>(value));
}

DWORD WINAPI ServeEvents(void* parameter) {
    const HANDLE* events = static_cast<HANDLE*>(parameter);
    for (;;) {
        const DWORD result = WaitForMultipleObjects(kVariables, events, FALSE, INFINITE);
        if (result >= WAIT_OBJECT_0 + kVariables) return 1;
        ReadAndTell(result - WAIT_OBJECT_0);
    }
}

// The window's handle goes to *parameter.
DWORD WINAPI ServeMessages(void* parameter) {
    WNDCLASSEXA windowClass{};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = &DefWindowProcA;
    windowClass.lpszClassName = "Convergence";
    RegisterClassExA(&windowClass);
    *static_cast<std::atomic<HWND>*>(parameter) =
        CreateWindowExA(0, "Convergence", "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0)
        if (message.message >= WM_APP) ReadAndTell(message.message - WM_APP);
    return 1;
}

int32_t Register(const std::string& form) {
    static HANDLE events[kVariables];
    static std::atomic<HWND> window{nullptr};
    TvsRegistration registration = 0;
    if (form == "event") {
        for (HANDLE& event : events)
            event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        CloseHandle(CreateThread(nullptr, 0, &ServeEvents, events, 0, nullptr));
        return SetNotificationEventExA(g_manager, kVariables, AllNames().c_str(), events, &registration);
    }
    if (form == "message") {
        CloseHandle(CreateThread(nullptr, 0, &ServeMessages, &window, 0, nullptr));
        WaitUntil([] { return window != nullptr; });
        uint32_t messages[kVariables];
        for (uint32_t i = 0; i < kVariables; ++i)
            messages[i] = WM_APP + i;
        return SetNotificationMsgExA(g_manager, kVariables, AllNames().c_str(), window, messages, &registration);
    }
    TvsCallback callbacks[kVariables];
    std::fill(std::begin(callbacks), std::end(callbacks), &OnCall);
    const uint32_t withoutValue[kVariables] = {};
    return SetNotificationCallbackExA(g_manager, kVariables, AllNames().c_str(), callbacks, withoutValue,
                                      &registration);
}

std::vector<uint32_t> Numbers(const std::string& line) {
    std::vector<uint32_t> numbers;
    for (size_t at = 0; at < line.size();
         at = line.find(' ', at) == std::string::npos ? line.size() : line.find(' ', at) + 1)
        numbers.push_back(static_cast<uint32_t>(std::stoul(line.substr(at))));
    return numbers;
}

// Each line that it hears: the tick count of the last write, and the values that all variables have in the end. Answers
// the milliseconds after that write in which the last of them was told, or which of them was not.
CHILD_PROCESS(ConvergenceWatcher) {
    Library library;
    g_manager = OpenPrinter();
    child.Say(std::to_string(Register(child.arguments[0])));
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear()) {
        const std::vector<uint32_t> expected = Numbers(line);
        const auto missing = [&] {
            uint32_t place = 0;
            while (place < kVariables && g_told[place].value == expected[place + 1])
                ++place;
            return place;
        };
        if (!WaitUntil([&] { return missing() == kVariables; }, kLostMs)) {
            child.Say("lost " + NameOf(missing()));
            continue;
        }
        LONG worst = 0;
        for (const Told& told : g_told)
            worst = std::max(worst, static_cast<LONG>(told.tick - expected[0]));
        child.Say(std::to_string(worst));
    }
    return 0; // the test is over; the process ends with whatever still waits
}

// Each line that it hears: a seed and a number of writes. Answers the tick count after the last one.
CHILD_PROCESS(ConvergenceWriter) {
    Library library;
    g_manager = OpenPrinter();
    const uint32_t own = static_cast<uint32_t>(std::stoul(child.arguments[0])) << 24;
    uint32_t count = 0;
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear()) {
        const std::vector<uint32_t> order = Numbers(line);
        std::mt19937 random(order[0]);
        for (uint32_t i = 0; i < order[1]; ++i)
            if (Update(g_manager, NameOf(static_cast<uint32_t>(random() % kVariables)),
                       Number(own | (++count & 0xFFFFFF))) != TVS_OK)
                return 1;
        child.Say(std::to_string(GetTickCount()));
    }
    return 0;
}

struct Watchers {
    Watchers() {
        constexpr const char* kForms[] = {"event", "message", "callback"};
        for (int i = 0; i < kWatchers; ++i)
            processes.emplace_back("ConvergenceWatcher", std::vector<std::string>{kForms[i % 3]});
        for (TestProcess& process : processes)
            EXPECT_EQ(process.Hear(), "0");
    }
    std::vector<TestProcess> processes;
};

} // namespace

TEST(NotificationConvergenceCampaign, EveryWatcherIsToldTheLastValueOfEveryVariable) {
    SetUpProduct();
    for (uint32_t i = 0; i < kVariables; ++i)
        AddModelVariable(kModel, NameOf(i), 4, 0x10004, Number(0));
    Service service;
    Library library;
    const TvsManager manager = OpenPrinter();
    Watchers watchers;
    std::vector<TestProcess> writers;
    for (int i = 0; i < kWriters; ++i)
        writers.emplace_back("ConvergenceWriter", std::vector<std::string>{std::to_string(i + 1)});

    const int rounds = Rounds(2, 100);
    const uint32_t writes = static_cast<uint32_t>(Rounds(4000, 200000) / kWriters);
    std::mt19937_64 random(Seed());
    std::vector<int> delays;
    int lost = 0;
    for (int round = 0; round < rounds; ++round) {
        for (TestProcess& writer : writers)
            writer.Tell(std::to_string(random() & 0xFFFFFF) + " " + std::to_string(writes));
        // One stands still in the middle; from the second round on one is gone too.
        TestProcess& stopped = watchers.processes[random() % (kWatchers - 1)];
        stopped.Stop();
        if (round == 1) watchers.processes.back().Kill();
        PauseMs(static_cast<int>(random() % 50)); // how long matters not
        stopped.Continue();

        DWORD last = 0;
        for (TestProcess& writer : writers) {
            const DWORD tick = static_cast<DWORD>(std::stoul(writer.Hear(120000)));
            if (last == 0 || static_cast<LONG>(tick - last) > 0) last = tick;
        }
        std::string line = std::to_string(last);
        for (uint32_t i = 0; i < kVariables; ++i)
            line += " " + std::to_string(NumberOf(manager, NameOf(i)));
        const int living = round == 0 ? kWatchers : kWatchers - 1;
        for (int i = 0; i < living; ++i)
            watchers.processes[i].Tell(line);
        for (int i = 0; i < living; ++i) {
            const std::string answer = watchers.processes[i].Hear(static_cast<int>(3 * kLostMs));
            EXPECT_FALSE(answer.starts_with("lost")) << "round " << round << ", watcher " << i << ": " << answer;
            if (answer.starts_with("lost"))
                ++lost;
            else
                delays.push_back(std::stoi(answer));
        }
    }
    ASSERT_FALSE(delays.empty());
    std::sort(delays.begin(), delays.end());
    std::printf("%d rounds, %u writes each, %zu watchers told: until all was told after the last write median %d ms, "
                "99 %% %d ms, worst %d "
                "ms; lost %d\n",
                rounds, writes * kWriters, delays.size(), delays[delays.size() / 2], delays[delays.size() * 99 / 100],
                delays.back(), lost);
}

// The service is killed again and again under load: 64 managers and as many watchers in processes of their own follow
// each new one by themselves, and no write of a setting that was acknowledged is lost.
#include "campaign.h"
#include "machine.h"

#include <algorithm>
#include <random>

namespace {

using ServiceKillCampaign = Opened;

constexpr size_t kProcesses = 8;
constexpr size_t kManagers = 8; // of each process, with a watcher each
constexpr int kLostMs = 10000;  // what has not come by then never will

TvsManager g_managers[kManagers];
std::atomic<uint32_t> g_told[kManagers];

void TVS_CALL OnCount(TvsManager manager, uint32_t, const char*, const void* value, uint32_t size) {
    if (value == nullptr || size != sizeof(uint32_t)) return;
    g_told[std::find(g_managers, std::end(g_managers), manager) - g_managers] = *static_cast<const uint32_t*>(value);
}

bool AllKnow(uint32_t count) {
    const auto knows = [=](size_t i) { return g_told[i] == count && NumberOf(g_managers[i], "PageCount") == count; };
    for (size_t i = 0; i < kManagers; ++i)
        if (!WaitUntil([=] { return knows(i); }, kLostMs)) return false;
    return true;
}

// Each line that it hears is a count; says how many milliseconds it took until all its watchers and managers had it.
CHILD_PROCESS(FollowsServices) {
    const Library library;
    for (TvsManager& manager : g_managers) {
        manager = OpenPrinter();
        TvsRegistration registration = 0;
        EXPECT_EQ(SetNotificationCallbackA(manager, "PageCount", OnCount, 0, &registration), TVS_OK);
    }
    child.Say("follows");
    for (std::string line = child.Hear(); !line.empty(); line = child.Hear()) {
        const DWORD start = GetTickCount();
        const bool all = AllKnow(static_cast<uint32_t>(std::stoul(line)));
        child.Say(all ? std::to_string(GetTickCount() - start) : "never");
    }
    std::_Exit(0); // the test is over
}

} // namespace

TEST_F(ServiceKillCampaign, EverybodyFollowsEachNewServiceAndNoSettingIsLost) {
    std::vector<TestProcess> processes;
    for (size_t i = 0; i < kProcesses; ++i)
        processes.emplace_back("FollowsServices");
    for (TestProcess& process : processes)
        ASSERT_EQ(process.Hear(), "follows");
    std::mt19937_64 random(Seed());
    uint32_t count = 0;
    std::vector<DWORD> took;
    for (int round = 0; round < Rounds(5, 1000); ++round) {
        SCOPED_TRACE(round);
        std::atomic<bool> stop = false;
        uint32_t acknowledged = count;
        {
            const TestThread writer([&] {
                while (!stop)
                    if (Update(manager, "PageCount", Number(++count)) == TVS_OK) acknowledged = count;
            });
            PauseMs(static_cast<int>(random() % 20)); // how long matters not
            KillService();
            stop = true;
        }
        service = Service();
        const DWORD start = GetTickCount();
        const uint32_t kept = NumberOf(manager, "PageCount");
        EXPECT_GE(kept, acknowledged) << "an acknowledged write is lost";
        EXPECT_LE(kept, count);
        ASSERT_EQ(Update(manager, "PageCount", Number(++count)), TVS_OK);
        for (TestProcess& process : processes)
            process.Tell(std::to_string(count));
        for (TestProcess& process : processes)
            EXPECT_NE(process.Hear(2 * kLostMs), "never");
        took.push_back(GetTickCount() - start);
    }
    std::sort(took.begin(), took.end());
    std::printf("until all %zu know: median %lu ms, worst %lu ms, of %zu\n", kProcesses * kManagers,
                static_cast<unsigned long>(took[took.size() / 2]), static_cast<unsigned long>(took.back()),
                took.size());
}

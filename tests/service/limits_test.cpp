// Bounds: what is beyond them is refused, what is below goes on, and all of it is given back.
#include "campaign.h"
#include "service_under_test.h"

namespace {

// The table of settings.h, for one user.
constexpr int kDatabases = 12288;
constexpr int kHandles = 65536;
constexpr int kWatches = 16384;
constexpr int kVariables = 2048;
constexpr size_t kMemory = 384u << 20;

// Asks until it is refused, at most so often; the number of times that it was not.
template <typename Ask>
int TimesUntilRefused(Ask ask, int most) {
    int times = 0;
    LONG answer = kDone;
    while (times < most && (answer = ask()) == kDone)
        ++times;
    EXPECT_EQ(answer, times < most ? kLimitReached : kDone);
    return times;
}

} // namespace

TEST(CampaignLimits, OfWatchesVariablesAndMemoryHold) {
    Service service;
    const Database database("Database", {{"Number", kTypeNumber, Number(1)}});
    const auto watch = [&] { return database.Watch("Number", kEveryWrite); };
    EXPECT_EQ(TimesUntilRefused(watch, kWatches + 1), kWatches);
    EXPECT_EQ(database.Unwatch("Number"), kDone);
    EXPECT_EQ(watch(), kDone);
    EXPECT_EQ(watch(), kLimitReached);
    EXPECT_EQ(database.Set("Number", 2), kDone) << "other calls go on";

    int number = 0;
    const auto add = [&](const Database& to, const Bytes& value) {
        return to.Add("V" + std::to_string(number++), kTypeVariableLength, value);
    };
    EXPECT_EQ(TimesUntilRefused([&] { return add(database, {1}); }, kVariables), kVariables - 1);
    const Database large("Large");
    const Bytes value(kValueSizeMax);
    const int values = TimesUntilRefused([&] { return add(large, value); }, kMemory / kValueSizeMax + 1);
    EXPECT_EQ(static_cast<size_t>(values), (kMemory - (1 << 20)) / kValueSizeMax);
    ASSERT_EQ(add(large, {1}), kDone) << "small ones still fit";
    const std::string last = "V" + std::to_string(number - 1);
    EXPECT_EQ(large.Write(last, value), kLimitReached);
    EXPECT_EQ(large.Value(last), (Bytes{1})) << "and keep their values";
    service.Stop();
    EXPECT_EQ(service.process.Wait(), 0) << service.process.Errors();
}

// The short form comes nowhere near them, which takes its time.
TEST(CampaignLimits, OfHandlesAndDatabasesHold) {
    const Service service;
    const Database first("D0");
    int number = 0;
    const auto create = [&] { return Database().Create("D" + std::to_string(++number)); };
    EXPECT_EQ(TimesUntilRefused(create, Rounds(200, kDatabases)), Rounds(200, kDatabases - 1));
    const auto open = [] { return Database().Open("D0"); };
    EXPECT_EQ(TimesUntilRefused(open, Rounds(1000, kHandles)), Rounds(1000, kHandles - kDatabases));
}

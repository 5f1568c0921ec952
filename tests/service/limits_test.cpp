// Bounds: what is beyond them is refused, what is below goes on, and all of it is given back.
#include "campaign.h"
#include "service_under_test.h"

namespace {

// The table of bounds.h, for one user.
constexpr int kDatabases = 8192;
constexpr int kHandles = 65536;
constexpr int kWatches = 16384;
constexpr int kVariables = 2048;
constexpr size_t kMemory = 128u << 20;

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

void ExpectOrderlyStop(Service& service) {
    service.Stop();
    EXPECT_EQ(service.process.Wait(), 0) << service.process.Errors();
}

} // namespace

TEST(CampaignLimits, OfWatchesVariablesAndMemoryHold) {
    Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(1)}});
    const auto watch = [&] { return WatchVariable(handle, "Number", kEveryWrite); };
    EXPECT_EQ(TimesUntilRefused(watch, kWatches + 1), kWatches);
    EXPECT_EQ(UnwatchVariable(handle, "Number"), kDone);
    EXPECT_EQ(watch(), kDone);
    EXPECT_EQ(watch(), kLimitReached);
    EXPECT_EQ(WriteVariable(handle, "Number", Number(2)), kDone) << "other calls go on";

    int number = 0;
    const auto create = [&](DWORD database, const Bytes& value) {
        return CreateVariable(database, "V" + std::to_string(number++), kTypeVariableLength, value);
    };
    EXPECT_EQ(TimesUntilRefused([&] { return create(handle, {1}); }, kVariables), kVariables - 1);
    const DWORD large = ReadyDatabase("Large", {});
    const Bytes value(kValueSizeMax);
    const int values = TimesUntilRefused([&] { return create(large, value); }, kMemory / kValueSizeMax + 1);
    EXPECT_EQ(static_cast<size_t>(values), (kMemory - (1 << 20)) / kValueSizeMax);
    ASSERT_EQ(create(large, {1}), kDone) << "small ones still fit";
    const std::string last = "V" + std::to_string(number - 1);
    EXPECT_EQ(WriteVariable(large, last, value), kLimitReached);
    EXPECT_EQ(ValueOf(large, last), (Bytes{1})) << "and keep their values";
    ExpectOrderlyStop(service);
}

// The short form comes nowhere near them, which takes its time; what it took is given back.
TEST(CampaignLimits, OfHandlesAndDatabasesHold) {
    Service service;
    int number = 0;
    DWORD handle = 0;
    const auto create = [&] {
        const LONG answer = CreateDatabase("D" + std::to_string(number++), &handle);
        return answer != kDone ? answer : number % 2 ? EndDatabaseInitialization(handle) : CloseDatabase(handle);
    };
    EXPECT_EQ(TimesUntilRefused(create, Rounds(200, kDatabases + 1)), Rounds(200, kDatabases));
    EXPECT_EQ(CreateDatabase("D1", &handle), kDone) << "one that was given up can be made all the same";
    const auto open = [&] { return OpenDatabase("D0", &handle); };
    const int held = kDatabases / 2 + 1;
    EXPECT_EQ(TimesUntilRefused(open, Rounds(1000, kHandles)), Rounds(1000, kHandles - held));
    ExpectOrderlyStop(service);
}

// Bounds: what is beyond them is refused, what is below goes on, and all of it is given back.
#include "service_under_test.h"

namespace {

// The table of bounds.h, for one user.
constexpr int kDatabases = 8192;
constexpr int kHandles = 65536;
constexpr int kWatches = 16384;
constexpr int kVariables = 2048;
constexpr size_t kMemory = 128u << 20;

// Asks until it is refused; the number of times that it was not.
template <typename Ask>
int TimesUntilRefused(Ask ask, int limit) {
    int times = 0;
    LONG answer = kDone;
    while (times <= limit && (answer = ask()) == kDone)
        ++times;
    EXPECT_EQ(answer, kLimitReached);
    return times;
}

void ExpectOrderlyStop(Service& service) {
    service.process.Terminate();
    EXPECT_EQ(service.process.Wait(), 0) << service.process.Errors();
}

} // namespace

TEST(CampaignLimits, OfOneUserHoldAndAreGivenBack) {
    Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(1)}});
    DWORD opened = 0;
    const auto open = [&] { return OpenDatabase("Database", &opened); };
    EXPECT_EQ(TimesUntilRefused(open, kHandles), kHandles - 1);
    EXPECT_EQ(CreateDatabase("Other", &opened), kLimitReached);
    EXPECT_EQ(opened, 0u);
    DatabaseInfo info = {};
    EXPECT_EQ(GetDatabaseInfo(handle, &info), kDone);
    EXPECT_EQ(info.openHandles, DWORD{kHandles});

    const auto watch = [&] { return WatchVariable(handle, "Number", kEveryWrite); };
    EXPECT_EQ(TimesUntilRefused(watch, kWatches), kWatches);
    EXPECT_EQ(UnwatchVariable(handle, "Number"), kDone);
    EXPECT_EQ(watch(), kDone);
    EXPECT_EQ(watch(), kLimitReached);
    EXPECT_EQ(WriteVariable(handle, "Number", Number(2)), kDone) << "other calls go on";
    ExpectOrderlyStop(service);
}

TEST(CampaignLimits, OfADatabaseAndOfMemoryHold) {
    Service service;
    int number = 0;
    const auto create = [&](DWORD handle, const Bytes& value) {
        return CreateVariable(handle, "V" + std::to_string(number++), kTypeVariableLength, value);
    };
    const DWORD many = ReadyDatabase("Many", {});
    EXPECT_EQ(TimesUntilRefused([&] { return create(many, {1}); }, kVariables), kVariables);

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

TEST(CampaignLimits, OfDatabasesHold) {
    Service service;
    int number = 0;
    const auto create = [&] {
        DWORD handle = 0;
        const LONG answer = CreateDatabase("D" + std::to_string(number++), &handle);
        return answer != kDone ? answer : number % 2 ? EndDatabaseInitialization(handle) : CloseDatabase(handle);
    };
    EXPECT_EQ(TimesUntilRefused(create, kDatabases), kDatabases);
    DWORD handle = 0;
    EXPECT_EQ(CreateDatabase("D1", &handle), kDone) << "one that was given up can be made all the same";
    ExpectOrderlyStop(service);
}

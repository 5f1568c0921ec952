// Clients and the service as processes: what one that is killed leaves behind, and what a killed service does to
// others.
#include "campaign.h"
#include "not_here.h"
#include "private_machine.h"
#include "service_under_test.h"

#include <tvsqdz_variables.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

namespace {

DWORD OpenHandlesOf(DWORD handle) {
    DatabaseInfo info = {};
    EXPECT_EQ(GetDatabaseInfo(handle, &info), kDone);
    return info.openHandles;
}

} // namespace

CHILD_PROCESS(OpensAndWatches) {
    DWORD handle = 0;
    for (int i = 0; i < 3; ++i)
        if (OpenDatabase("Database", &handle) != kDone) return 1;
    if (WatchVariable(handle, "Number", kEveryWrite) != kDone) return 1;
    if (WatchVariable(handle, "Number", kOnlyChanges) != kDone) return 1;
    child.Say(std::to_string(handle));
    child.Hear();
    return 0;
}

CHILD_PROCESS(CreatesAndStays) {
    DWORD handle = 0;
    if (CreateDatabase("Database", &handle) != kDone) return 1;
    if (CreateVariable(handle, "Unfinished", kTypeNumber, Number(1)) != kDone) return 1;
    child.Say("created");
    child.Hear();
    return 0;
}

TEST(Clients, AKilledOneGivesItsHandlesAndWatchesBack) {
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(1)}});
    const auto eventExists = [] {
        const HANDLE event = OpenEventA(SYNCHRONIZE, FALSE, "Global\\TVOR:Database:Number:Changed");
        if (event) CloseHandle(event);
        return event != nullptr;
    };
    for (int round = 0; round < 3; ++round) {
        TestProcess client("OpensAndWatches");
        const DWORD foreign = static_cast<DWORD>(std::strtoul(client.Hear().c_str(), nullptr, 10));
        EXPECT_EQ(OpenHandlesOf(handle), 4u);
        DatabaseInfo info = {};
        EXPECT_EQ(GetDatabaseInfo(foreign, &info), kUnknownDatabase) << "a handle of another process";
        EXPECT_EQ(CloseDatabase(foreign), kUnknownDatabase);
        EXPECT_EQ(UnwatchVariable(handle, "Number"), kNotWatched) << "nor its watches";
        EXPECT_TRUE(eventExists());
        client.Kill();
        EXPECT_TRUE(WaitUntil([&] { return OpenHandlesOf(handle) == 1; }));
        EXPECT_TRUE(WaitUntil([&] { return !eventExists(); }));
    }
}

TEST(Clients, AnUnfinishedDatabaseIsTakenOverFromAKilledCreator) {
    const Service service;
    for (int round = 0; round < 3; ++round) {
        TestProcess creator("CreatesAndStays");
        ASSERT_EQ(creator.Hear(), "created");
        DWORD handle = 0;
        EXPECT_EQ(CreateDatabase("Database", &handle), kDatabaseExists);
        EXPECT_EQ(OpenDatabase("Database", &handle), kBeingInitialised);
        const HANDLE ready = OpenEventA(SYNCHRONIZE, FALSE, "Database:Initialized");
        ASSERT_NE(ready, nullptr);
        EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_TIMEOUT});
        creator.Kill();
        EXPECT_EQ(WaitForSingleObject(ready, 10000), DWORD{WAIT_OBJECT_0}) << "nobody waits for good";
        CloseHandle(ready);
        EXPECT_EQ(OpenDatabase("Database", &handle), kUnknownDatabase);
        ASSERT_EQ(CreateDatabase("Database", &handle), kDone);
        VariableInfo info = {};
        EXPECT_EQ(GetVariableInfo(handle, "Unfinished", &info), kUnknownVariable);
        EXPECT_EQ(CloseDatabase(handle), kDone); // and is given up again
    }
}

TEST(ServiceProcess, OneServesAndStopsInOrderAndTheNextKnowsNothingOfIt) {
    DWORD old = 0;
    DWORD handle = 0;
    {
        Service service;
        old = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(1)}});
        EXPECT_EQ(WatchVariable(old, "Number", kEveryWrite), kDone);
        TestProcess client("OpensAndWatches");
        client.Hear();
        EXPECT_NE(RunProgram(ProgramPath("TVSDBN.EXE")).exitCode, 0) << "a second one does not start";
        EXPECT_EQ(CreateDatabase("Unfinished", &handle), kDone);
        const HANDLE ready = OpenEventA(SYNCHRONIZE, FALSE, "Unfinished:Initialized");
        service.Stop();
        EXPECT_EQ(service.process.Wait(), 0) << service.process.Errors(); // all that was charged has been given back
        EXPECT_EQ(ServiceState(), DWORD{SERVICE_STOPPED});
        EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_OBJECT_0});
        CloseHandle(ready);
        EXPECT_GT(OpenDatabase("Database", &handle), 0) << "the run-time says so";
    }
    const Service service;
    EXPECT_EQ(OpenDatabase("Database", &handle), kUnknownDatabase);
    DatabaseInfo info = {};
    EXPECT_EQ(GetDatabaseInfo(old, &info), kUnknownDatabase);
    ASSERT_EQ(CreateDatabase("Database", &handle), kDone);
    EXPECT_EQ(GetDatabaseInfo(old, &info), kUnknownDatabase);
}

// Every value is one byte repeated, of the first two as often as the byte says: a mix of two of them shows. "Report" is
// only written whole, so its members never come from two writes.
TEST(Load, ManyThreadsNeverSeeATornValue) {
    constexpr int kThreads = 16;
    const Service service;
    const DWORD handle = ReadyDatabase("Database", {{"Record", kTypeRecord, Bytes(255, 255)},
                                                    {"List", kTypeVariableLength, Bytes(1, 1)},
                                                    {"Job", kTypeRecord, Bytes(255, 255)},
                                                    {"Coverage", kTypeRecord, Bytes(24, 255)},
                                                    {"Report", kTypeComposite, {}},
                                                    {"All", kTypeComposite, {}}});
    ASSERT_EQ(SetCompositeMembers(handle, "Report", "Job;Coverage;"), kDone);
    ASSERT_EQ(SetCompositeMembers(handle, "All", "Record;Report;Record;"), kDone);
    const uint64_t seed = Seed();
    const int rounds = Rounds(400, 40000);
    std::atomic<int> torn = 0;
    const auto isWhole = [](const unsigned char* bytes, size_t size) {
        return size == bytes[0] && std::all_of(bytes, bytes + size, [&](unsigned char c) { return c == bytes[0]; });
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            std::mt19937_64 random(seed + static_cast<uint64_t>(thread));
            for (int round = 0; round < rounds; ++round) {
                const char* const names[] = {"Record", "List", "Report"};
                const size_t which = random() % 3;
                if (random() % 2) {
                    const auto byte = static_cast<unsigned char>(1 + random() % 255);
                    EXPECT_EQ(WriteVariable(handle, names[which], Bytes(which < 2 ? byte : 279, byte)), kDone);
                    continue;
                }
                Bytes value;
                DWORD size = 0;
                EXPECT_EQ(ReadVariable(handle, names[which % 2], 255, &value, &size), kDone);
                if (!isWhole(value.data(), size)) ++torn;
                // First and last part of the composite are one variable at one moment.
                EXPECT_EQ(ReadVariable(handle, "All", 789, &value, &size), kDone);
                const unsigned char* report = value.data() + 255;
                if (!isWhole(value.data(), value[0]) || !std::equal(report, report + 278, report + 1) ||
                    !std::equal(value.begin(), value.begin() + 255, report + 279))
                    ++torn;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(torn, 0);
}

// Whoever is in a call when the service is killed gets an error at once.
TEST(Campaign, CallsOfAKilledServiceReturn) {
    constexpr int kThreads = 16;
    // By itself, on a machine that does nothing else; elsewhere only that it ends.
    const double boundMs = Rounds(5000, 100);
    double worst = 0;
    for (int round = 0; round < Rounds(3, 200); ++round) {
        Service service;
        const DWORD handle = ReadyDatabase("Database", {{"Number", kTypeNumber, Number(1)}});
        std::atomic<int> calls = 0;
        std::atomic<int> running = kThreads;
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&] {
                Bytes value;
                while (ReadVariable(handle, "Number", 4, &value) == kDone &&
                       WriteVariable(handle, "Number", value) == kDone)
                    ++calls;
                --running;
            });
        }
        EXPECT_TRUE(WaitUntil([&] { return calls > 50 * kThreads; }));
        const double killed = NowMs();
        service.process.KillOnly();
        EXPECT_TRUE(WaitUntil([&] { return running == 0; }));
        worst = std::max(worst, NowMs() - killed);
        for (std::thread& thread : threads)
            thread.join();
    }
    std::printf("worst: %.1f ms\n", worst);
    EXPECT_LE(worst, boundMs);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take memory of their own
// Printers as the library creates them: 1,000 are to stay far below 64 MiB.
TEST(Campaign, AThousandPrintersTakeLittleMemory) {
    const int printers = Rounds(200, 1000);
    Service service;
#define VARIABLE(name, type, size) {#name, size},
    constexpr struct {
        const char* name;
        size_t size;
    } kVariables[] = {TVS_BUILT_IN_VARIABLES(VARIABLE)};
#undef VARIABLE
    const size_t before = service.process.ResidentBytes();
    size_t half = 0; // by then the system has what serving the first ones took it
    for (int printer = 1; printer <= printers; ++printer) {
        DWORD handle = 0;
        ASSERT_EQ(CreateDatabase("TVORSQD_DB" + std::to_string(printer), &handle), kDone);
        for (const auto& [name, size] : kVariables)
            ASSERT_EQ(CreateVariable(handle, name, size > 0 ? kTypeRecord : kTypeVariableLength,
                                     Bytes(size > 0 ? size : 8, 1)),
                      kDone);
        ASSERT_EQ(EndDatabaseInitialization(handle), kDone);
        if (printer == printers / 2) half = service.process.ResidentBytes();
    }
    const size_t after = service.process.ResidentBytes();
    std::printf("resident: %zu KiB at the start, %zu KiB with %d printers\n", before / 1024, after / 1024, printers);
    constexpr size_t kMiB = 1024 * 1024;
    EXPECT_TRUE(after < before + 20 * kMiB * static_cast<size_t>(printers) / 1000 || !OnTheLayer());
    EXPECT_LT(after, half + 20 * kMiB * static_cast<size_t>(printers - printers / 2) / 1000);
    EXPECT_LT(before, 20 * kMiB);
}
#endif

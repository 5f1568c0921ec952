// Clients and the service as processes: what one that is killed leaves behind, and what a killed service does to
// others.
#include "campaign.h"
#include "private_machine.h"
#include "service_under_test.h"

#include <cstdlib>
#include <random>
#include <thread>

CHILD_PROCESS(OpensAndWatches) {
    Database database;
    for (int i = 0; i < 3; ++i)
        if (database.Open("Database") != kDone) return 1;
    for (const DWORD mode : {kEveryWrite, kOnlyChanges})
        if (database.Watch("Number", mode) != kDone) return 1;
    child.Say(std::to_string(database.handle));
    child.Hear();
    return 0;
}

TEST(Clients, AKilledOneGivesItsHandlesAndWatchesBack) {
    const Service service;
    const Database database("Database", {{"Number", kTypeNumber, Number(1)}});
    const auto eventExists = [] {
        const HANDLE event = OpenEventA(SYNCHRONIZE, FALSE, "Global\\TVOR:Database:Number:Changed");
        if (event) CloseHandle(event);
        return event != nullptr;
    };
    TestProcess client("OpensAndWatches");
    Database foreign;
    foreign.handle = static_cast<DWORD>(std::strtoul(client.Hear().c_str(), nullptr, 10));
    EXPECT_EQ(database.OpenHandles(), 4u);
    DatabaseInfo info = {};
    EXPECT_EQ(foreign.Info(&info), kUnknownDatabase) << "a handle of another process";
    EXPECT_EQ(database.Unwatch("Number"), kNotWatched) << "nor its watches";
    EXPECT_TRUE(eventExists());
    client.Kill();
    EXPECT_TRUE(WaitUntil([&] { return database.OpenHandles() == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return !eventExists(); }));
}

TEST(ServiceProcess, OneServesAndStopsInOrderAndTheNextKnowsNothingOfIt) {
    Database old, database;
    DatabaseInfo info = {};
    {
        Service service;
        old = Database("Database", {{"Number", kTypeNumber, Number(1)}});
        EXPECT_EQ(old.Watch("Number", kEveryWrite), kDone);
        TestProcess client("OpensAndWatches");
        client.Hear();
        EXPECT_NE(RunProgram(ProgramPath("TVSDBN.EXE")).exitCode, 0) << "a second one does not start";
        EXPECT_EQ(database.Create("Unfinished"), kDone);
        const HANDLE ready = OpenEventA(SYNCHRONIZE, FALSE, "Unfinished:Initialized");
        service.Stop();
        EXPECT_EQ(service.process.Wait(), 0) << service.process.Errors(); // all that was charged has been given back
        EXPECT_EQ(ServiceState(), DWORD{SERVICE_STOPPED});
        EXPECT_EQ(WaitForSingleObject(ready, 0), DWORD{WAIT_OBJECT_0});
        CloseHandle(ready);
        EXPECT_GT(database.Open("Database"), 0) << "the run-time says so";
    }
    const Service service;
    EXPECT_EQ(database.Open("Database"), kUnknownDatabase);
    EXPECT_EQ(old.Info(&info), kUnknownDatabase);
    ASSERT_EQ(database.Create("Database"), kDone);
    EXPECT_EQ(old.Info(&info), kUnknownDatabase);
}

// Every value is one byte repeated, of the list as often as the byte says: a mix of two of them shows. "Report" is only
// written whole, so its members never come from two writes. "Ends" leaves out the one in its middle, which is so large
// that a reader easily comes between the writes of the others, were they not one.
TEST(Load, ManyThreadsNeverSeeATornValue) {
    constexpr size_t kMiddle = 256 << 10;
    const Service service;
    const Database database("Database", {{"List", kTypeVariableLength, Bytes(1, 1)},
                                         {"Job", kTypeRecord, Bytes(255, 255)},
                                         {"Middle", kTypeRecord, Bytes(kMiddle, 255)},
                                         {"Coverage", kTypeRecord, Bytes(24, 255)},
                                         {"Report", kTypeComposite, {}},
                                         {"Ends", kTypeComposite, {}}});
    ASSERT_EQ(database.Compose("Report", "Job;Middle;Coverage;"), kDone);
    ASSERT_EQ(database.Compose("Ends", "Job;Coverage;"), kDone);
    const uint64_t seed = Seed();
    const int rounds = Rounds(400, 40000);
    std::vector<std::thread> threads;
    for (uint64_t thread = 0; thread < 16; ++thread)
        threads.emplace_back([&, thread] {
            std::mt19937_64 random(seed + thread);
            for (int round = 0; round < rounds; ++round) {
                const auto byte = static_cast<unsigned char>(1 + random() % 255);
                const bool ofList = random() % 2;
                if (random() % 2) {
                    const Bytes value(ofList ? byte : 279 + kMiddle, byte);
                    EXPECT_EQ(database.Write(ofList ? "List" : "Report", value), kDone);
                    continue;
                }
                Bytes value;
                DWORD size = 0;
                EXPECT_EQ(database.Read(ofList ? "List" : "Ends", 279, &value, &size), kDone);
                EXPECT_EQ(size, ofList ? value[0] : 279);
                value.resize(size);
                EXPECT_EQ(value, Bytes(size, value[0]));
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

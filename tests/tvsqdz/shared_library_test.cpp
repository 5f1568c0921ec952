// The library as it is shipped, in a process that loads it.
#include "loaded_library.h"
#include "machine.h"
#include "printer_side.h"
#include "product/object_names.h"

namespace {

// Opens, reads, and leaves the manager to the process's end. "watch": with a thread in a call, and watchers.
CHILD_PROCESS(LoadsTheSharedLibrary) {
    LoadedLibrary library;
    if (!library.failure.empty()) return 1;
    const auto open = library.Find("OpenManagerExA", &OpenManagerExA);
    const auto read = library.Find("GetPrinterStatusA", &GetPrinterStatusA);
    TvsManager manager = 0;
    uint32_t value = 0;
    uint32_t size = 0;
    const int32_t opened = open(kPrinter.c_str(), "u", 6, &manager);
    const int32_t status = read(manager, "ModelNumber", &value, sizeof value, &size);
    child.Say(std::to_string(opened) + " " + std::to_string(status) + " " + std::to_string(value));
    const std::string end = child.Hear();
    if (end == "unload") {
        library.Unload();
        child.Say("unloaded");
        child.Hear();
    }
    if (end != "watch") return 0;
    const auto watch = library.Find("SetNotificationEventA", &SetNotificationEventA);
    TvsRegistration registration = 0;
    int32_t watched = TVS_OK;
    for (const char* variable : {"ModelNumber", "PrinterStatus", "PrintingMyJob"})
        watched |= watch(manager, variable, nullptr, &registration);
    new TestThread([&] {
        for (;;)
            read(manager, "ModelNumber", &value, sizeof value, &size);
    });
    child.Say(std::to_string(watched));
    child.Hear();
    std::exit(0); // while the thread reads
}

// Unloads the library while its threads begin.
CHILD_PROCESS(UnloadsAtOnce) {
    for (int i = 0; i < 20; ++i) {
        const LoadedLibrary library;
        TvsManager manager = 0;
        EXPECT_EQ(library.Find("OpenManagerExA", &OpenManagerExA)(kPrinter.c_str(), "u", 6, &manager), TVS_OK);
        const double before = NowMs();
        library.Unload();
        EXPECT_LT(NowMs() - before, 5000);
        if (testing::Test::HasFailure()) return 1;
    }
    return 0;
}

// Unloads the library while a request waits.
CHILD_PROCESS(UnloadsDuringARequest) {
    const HANDLE event = NewEvent();
    const LoadedLibrary library;
    TvsManager manager = 0;
    uint32_t number = 7;
    int32_t status = library.Find("OpenManagerExA", &OpenManagerExA)(kPrinter.c_str(), kPowerfulUser, 2, &manager);
    const auto ask = library.Find("SetReqPrinterStatusEventA", &SetReqPrinterStatusEventA);
    if (status == TVS_OK) status = ask(manager, "DNumber", &number, sizeof number, event, &number);
    library.Unload();
    child.Say(std::to_string(status));
    child.Say(IsSet(event, 20000) ? "told" : "not told");
    child.Say(WaitUntil([&] { return !LoadedLibrary::IsThere(); }) ? "gone" : "still there");
    return 0;
}

} // namespace

TEST(SharedLibrary, ServesAProcessAndLeavesNothingBehind) {
    SetUpProduct();
    const Service service;
    for (const std::string end : {"unload", "exit", "kill"}) {
        SCOPED_TRACE(end);
        TestProcess process("LoadsTheSharedLibrary");
        EXPECT_EQ(process.Hear(), "0 0 7");
        if (end == "unload") {
            EXPECT_EQ(process.Ask(end), "unloaded");
        } else if (end == "exit") {
            process.End();
        } else {
            process.Kill();
        }
        const Library library;
        // Unloading and ending close what is open; a process that is killed leaves itself as the owner.
        EXPECT_EQ(RecordOf(OpenPrinter())->ownerProcessId == process.Id(), end == "kill");
    }
}

// The loader's lock is held meanwhile: no thread that the unload waits for may need it.
TEST(SharedLibrary, AnUnloadWaitsForNoThreadThatWaitsForTheLoader) {
    NeedsTheLayer("threads that end without the loader's lock");
    SetUpProduct();
    const Service service;
    TestProcess process("UnloadsAtOnce");
    EXPECT_EQ(process.Wait(), 0) << process.Errors();
}

// The thread of a request keeps the code that it runs.
TEST(SharedLibrary, IsUnloadedOnceTheLastRequestHasEnded) {
    SetUpProduct();
    const Service service;
    const Library library;
    const TvsManager manager = OpenPrinter();
    SetReady(manager);
    const PrinterSide printer(RecordOf(manager)->printerDatabase.handle);
    const HANDLE turn = RecordOf(manager)->requestMutex;
    ASSERT_TRUE(IsSet(turn)); // for which the thread waits
    TestProcess process("UnloadsDuringARequest");
    EXPECT_EQ(process.Hear(), "0");
    ReleaseMutex(turn);
    EXPECT_EQ(process.Hear(), "told");
    EXPECT_EQ(process.Hear(), "gone");
    EXPECT_EQ(process.Wait(), 0) << process.Errors();
}

// The end of a process closes its managers, but not at any price.
TEST(SharedLibrary, AProcessEndsWhileTheServiceStandsStill) {
    NeedsTheLayer("a limit for local calls");
    SetUpProduct();
    Service service;
    TestProcess process("LoadsTheSharedLibrary");
    EXPECT_EQ(process.Hear(), "0 0 7");
    EXPECT_EQ(process.Ask("watch"), "0");
    // Somebody has the mutex under which an owner gives its printer back.
    ASSERT_TRUE(IsSet(OpenMutexA(SYNCHRONIZE, FALSE, "TVORSQD:Mutex:DabaBase")));
    service.process.Stop();
    // A watcher that is woken asks the service, and has no answer when the end begins.
    const HANDLE changed = OpenEventA(
        EVENT_MODIFY_STATE, FALSE,
        product::VariableEventName(true, "TVORSQD_DB1", "ModelNumber", product::VariableSignal::Changed).text);
    ASSERT_TRUE(SetEvent(changed));
    PauseMs(50);
    const double before = NowMs();
    process.End();
    EXPECT_LT(NowMs() - before, 3000);
    service.process.Continue();
}

// The library as it is shipped, in a process that loads it.
#include "loaded_library.h"
#include "machine.h"
#include "product/object_names.h"

namespace {

template <typename Function>
Function* Export(void* library, const char* name, Function*) {
    return reinterpret_cast<Function*>(FindExport(library, name));
}

// Reads for ever.
struct Reader {
    decltype(&GetPrinterStatusA) read;
    TvsManager manager;
};
DWORD WINAPI ReadForEver(void* parameter) {
    const Reader reader = *static_cast<Reader*>(parameter);
    for (uint32_t value = 0, size = 0;;)
        reader.read(reader.manager, "ModelNumber", &value, sizeof value, &size);
}

// Opens, reads, and leaves the manager to the process's end. "watch": with a thread in a call, and watchers.
CHILD_PROCESS(LoadsTheSharedLibrary) {
    std::string failure;
    void* library = LoadTheLibrary(failure);
    if (library == nullptr) {
        child.Say(failure);
        return 1;
    }
    const auto open = Export(library, "OpenManagerExA", &OpenManagerExA);
    const auto read = Export(library, "GetPrinterStatusA", &GetPrinterStatusA);
    TvsManager manager = 0;
    uint32_t value = 0;
    uint32_t size = 0;
    const int32_t opened = open(kPrinter.c_str(), "u", 6, &manager);
    const int32_t status = read(manager, "ModelNumber", &value, sizeof value, &size);
    child.Say(std::to_string(opened) + " " + std::to_string(status) + " " + std::to_string(value));
    const std::string end = child.Hear();
    if (end == "unload") {
        UnloadTheLibrary(library);
        child.Say("unloaded");
        child.Hear();
    }
    if (end == "watch") {
        const auto watch = Export(library, "SetNotificationEventA", &SetNotificationEventA);
        TvsRegistration registration = 0;
        for (const char* variable : {"ModelNumber", "PrinterStatus", "PrintingMyJob"})
            EXPECT_EQ(watch(manager, variable, nullptr, &registration), TVS_OK);
        static Reader reader;
        reader = {read, manager};
        CreateThread(nullptr, 0, ReadForEver, &reader, 0, nullptr);
        child.Say("watching");
        child.Hear();
    }
    return testing::Test::HasFailure();
}

} // namespace

TEST(SharedLibrary, ServesAProcessAndLeavesNothingBehind) {
    SetUpProduct();
    const Service service;
    for (const std::string end : {"unload", "exit", "kill"}) {
        SCOPED_TRACE(end);
        TestProcess process("LoadsTheSharedLibrary");
        EXPECT_EQ(process.Hear(), "0 0 7");
        if (end != "kill") process.Tell(end);
        if (end == "kill") process.Kill();
        if (end == "unload") {
            EXPECT_EQ(process.Hear(), "unloaded");
        }
        const Library library;
        // Unloading and ending close what is open; a process that is killed leaves itself as the owner.
        EXPECT_TRUE(
            WaitUntil([&] { return (RecordOf(OpenPrinter())->ownerProcessId == process.Id()) == (end == "kill"); }));
    }
}

// The end of a process closes its managers, but not at any price.
TEST(SharedLibrary, AProcessEndsWhileTheServiceStandsStill) {
    NeedsTheLayer("a limit for local calls");
    SetUpProduct();
    Service service;
    TestProcess process("LoadsTheSharedLibrary");
    EXPECT_EQ(process.Hear(), "0 0 7");
    process.Tell("watch");
    EXPECT_EQ(process.Hear(), "watching");
    // Somebody has the mutex under which an owner gives its printer back.
    const HANDLE mutex = OpenMutexA(SYNCHRONIZE, FALSE, "TVORSQD:Mutex:DabaBase");
    ASSERT_EQ(WaitForSingleObject(mutex, 10000), DWORD{WAIT_OBJECT_0});
    service.process.Stop();
    // A watcher that is woken asks the service, and has no answer when the end begins.
    const HANDLE changed = OpenEventA(
        EVENT_MODIFY_STATE, FALSE,
        product::VariableEventName(true, "TVORSQD_DB1", "ModelNumber", product::VariableSignal::Changed).text);
    ASSERT_NE(changed, nullptr);
    SetEvent(changed);
    PauseMs(50);
    const double before = NowMs();
    process.Tell("end");
    EXPECT_EQ(process.Wait(), 0) << process.Errors();
    EXPECT_LT(NowMs() - before, 3000);
    service.process.Continue();
}

TEST(SharedLibrary, WithoutTheProductItLoadsAndRefuses) {
    TestProcess process("LoadsTheSharedLibrary");
    // Where DllMain refuses, Windows does not load it (ERROR_DLL_INIT_FAILED).
    if (!OnTheLayer()) {
        EXPECT_EQ(process.Hear(), "error 1114");
        return;
    }
    EXPECT_EQ(process.Hear(), "-16 -1 0");
    process.Tell("unload");
    EXPECT_EQ(process.Hear(), "unloaded");
    process.Tell("end");
    EXPECT_EQ(process.Wait(), 0);
}

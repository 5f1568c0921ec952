// The library as it is shipped, in a process that loads it.
#include "loaded_library.h"
#include "machine.h"

namespace {

template <typename Function>
Function* Export(void* library, const char* name, Function*) {
    return reinterpret_cast<Function*>(FindExport(library, name));
}

// Opens, updates, reads and leaves the manager to the process's end.
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
    if (child.Hear() == "unload") {
        UnloadTheLibrary(library);
        child.Say("unloaded");
        child.Hear();
    }
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

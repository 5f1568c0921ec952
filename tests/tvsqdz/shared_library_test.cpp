// The library as it is shipped, in a process that loads it; and the include law of its sources.
#include "machine.h"
#include "private_machine.h"

#include <dlfcn.h>
#include <filesystem>
#include <fstream>

namespace {

template <typename Function>
Function* Export(void* library, const char* name, Function*) {
    return reinterpret_cast<Function*>(dlsym(library, name));
}

// Opens, updates, reads and leaves the manager to the process's end.
CHILD_PROCESS(LoadsTheSharedLibrary) {
    void* library = dlopen(LibraryPath("libtvsqdz.so.1").c_str(), RTLD_NOW);
    if (library == nullptr) {
        child.Say(dlerror());
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
        dlclose(library);
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
    EXPECT_EQ(process.Hear(), "-16 -1 0");
    process.Tell("unload");
    EXPECT_EQ(process.Hear(), "unloaded");
    process.Tell("end");
    EXPECT_EQ(process.Wait(), 0);
}

// The check of the include law finds what it is there to find, and nothing in a tree that keeps it.
TEST(SharedLibrary, TheLayerCheckSeesEachBreach) {
    const std::string root = PrivateDirectory() + "/tree";
    const auto write = [&](const std::string& file, const std::string& text) {
        std::filesystem::create_directories(std::filesystem::path(root + "/" + file).parent_path());
        std::ofstream(root + "/" + file) << text;
    };
    std::filesystem::create_directories(root + "/include");
    std::filesystem::create_directories(root + "/platform/include");
    write("tvsqdz/levels.txt", "level 0  low\nframe/low\nlevel 1  high\nframe/high\n");
    write("tvsqdz/frame/low.h", "#include <string.h>\n");
    write("tvsqdz/frame/high.h", "#include \"frame/low.h\"\n");
    write("cli/main.cpp", "#include <CLI/CLI.hpp>\n");
    EXPECT_EQ(RunProgram(SourcePath("scripts/check-layers"), {root}).exitCode, 0);

    write("tvsqdz/levels.txt", "level 0  low\nframe/low\nlevel 1  high\nframe/high\nframe/gone\n");
    write("tvsqdz/frame/low.cpp", "#include \"frame/high.h\"\n#include <unistd.h>\n# include <thread>\n");
    write("tvsqdz/frame/other.cpp", "");
    write("cli/main.cpp", "#if defined(_WIN32)\n#endif\n");
    const ProgramResult result = RunProgram(SourcePath("scripts/check-layers"), {root});
    EXPECT_EQ(result.exitCode, 1);
    for (const char* finding : {"level 0 includes", "has no level", "unistd.h", "thread", "no header of the seam",
                                "tells the platforms apart", "does not exist"})
        EXPECT_NE(result.errors.find(finding), std::string::npos) << finding << result.errors;
}

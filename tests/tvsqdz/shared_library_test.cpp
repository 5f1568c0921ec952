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
    for (const char* end : {"unload", "exit", "kill"}) {
        SCOPED_TRACE(end);
        TestProcess process("LoadsTheSharedLibrary");
        EXPECT_EQ(process.Hear(), "0 0 7");
        if (std::string(end) == "kill") {
            process.Kill();
        } else {
            process.Tell(end);
            if (std::string(end) == "unload") {
                EXPECT_EQ(process.Hear(), "unloaded");
            }
        }
        const Library library;
        const TvsManager manager = OpenPrinter();
        // Unloading and ending close what is open; a process that is killed leaves itself as the owner.
        const bool killed = std::string(end) == "kill";
        EXPECT_TRUE(WaitUntil([&] { return (RecordOf(OpenPrinter())->ownerProcessId == process.Id()) == killed; }));
        EXPECT_EQ(CloseManager(manager), TVS_OK);
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

// The check of the include law finds what it is there to find.
TEST(SharedLibrary, TheLayerCheckSeesEachBreach) {
    const std::string root = PrivateDirectory() + "/tree";
    const auto check = [&](const std::string& file, const std::string& text) {
        std::filesystem::remove_all(root);
        for (const char* folder : {"/tvsqdz/frame", "/include", "/platform/include", "/cli"})
            std::filesystem::create_directories(root + folder);
        std::ofstream(root + "/tvsqdz/levels.txt") << "level 0  low\nframe/low\nlevel 1  high\nframe/high\n";
        std::ofstream(root + "/tvsqdz/frame/low.h") << "#include <string.h>\n";
        std::ofstream(root + "/tvsqdz/frame/high.h") << "#include \"frame/low.h\"\n";
        std::ofstream(root + "/" + file) << text;
        return RunProgram(SourcePath("scripts/check-layers"), {root});
    };
    EXPECT_EQ(check("cli/main.cpp", "#include <CLI/CLI.hpp>\n").exitCode, 0);
    struct Row {
        const char* file;
        const char* text;
        const char* finding;
    };
    const Row rows[] = {
        {"tvsqdz/frame/low.cpp", "#include \"frame/high.h\"\n", "level 0 includes"},
        {"tvsqdz/frame/high.h", "#include \"frame/other.h\"\n", "has no level"},
        {"tvsqdz/frame/other.cpp", "", "has no level"},
        {"tvsqdz/frame/low.cpp", "#include <unistd.h>\n", "no header of the seam"},
        {"tvsqdz/frame/low.cpp", "# include <thread>\n", "no header of the seam"},
        {"tvsqdz/frame/low.cpp", "#include <CLI/CLI.hpp>\n", "no header of the seam"},
        {"cli/main.cpp", "#ifdef __linux__\n#endif\n", "tells the platforms apart"},
        {"cli/main.cpp", "#if defined(_WIN32)\n#endif\n", "tells the platforms apart"},
        {"tvsqdz/levels.txt", "level 0\nframe/low\nframe/high\nframe/gone\n", "does not exist"},
    };
    for (const Row& row : rows) {
        const ProgramResult result = check(row.file, row.text);
        EXPECT_EQ(result.exitCode, 1) << row.text;
        EXPECT_NE(result.errors.find(row.finding), std::string::npos) << row.text << result.errors;
    }
}

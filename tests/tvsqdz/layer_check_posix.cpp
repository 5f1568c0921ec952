// The check of the include law of the library's sources.
#include "private_machine.h"
#include "test_process.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

// It finds what it is there to find, and nothing in a tree that keeps the law.
TEST(LayerCheck, SeesEachBreach) {
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

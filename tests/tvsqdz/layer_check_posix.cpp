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
    write("ARCHITECTURE.md", "```layers\nlibrary: include < tvsqdz/low < tvsqdz/high\ncli: include < cli\n```\n"
                             "```files\nservice: first < second\n```\n");
    write("service/first.h", "");
    write("service/second_linux.cpp", "#include \"first.h\"\n#include \"second.h\"\n");
    write("include/public.h", "");
    std::filesystem::create_directories(root + "/platform/include");
    write("tvsqdz/low/low.h", "#include <string.h>\n");
    write("tvsqdz/high/high.h", "#include \"low/low.h\"\n#include <public.h>\n");
    write("cli/main.cpp", "#include <CLI/CLI.hpp>\n");
    EXPECT_EQ(RunProgram(SourcePath("scripts/check-layers"), {root}).exitCode, 0);

    write("tvsqdz/low/low.cpp", "#include \"high/high.h\"\n#include <unistd.h>\n# include <thread>\n");
    write("tvsqdz/other/other.cpp", "");
    write("service/first.cpp", "#include \"second.h\"\n");
    write("service/third.cpp", "");
    write("cli/main.cpp", "#if defined(_WIN32)\n#endif\n#include \"low/low.h\"\n");
    const ProgramResult result = RunProgram(SourcePath("scripts/check-layers"), {root});
    EXPECT_EQ(result.exitCode, 1);
    for (const char* finding :
         {"which is above it", "\"second.h\", which", "not in the order", "not in the law", "unistd.h", "thread",
          "no header of the seam", "tells the platforms apart", "none of the folders"})
        EXPECT_NE(result.errors.find(finding), std::string::npos) << finding << result.errors;
}

// The examples and the demonstration do what they show.
#include "product.h"

#include <algorithm>

namespace {

// A printed program, which a command takes out of its file, built as a user would.
std::string Build(const std::string& name, const std::string& command) {
    const std::string built = PrivateDirectory() + "/" + name;
    const std::string script =
        "cd '" + SourcePath("") + "' && " + command +
        " >\"$0.c\" && " ORIEL_C_COMPILER
        R"( -std=c11 -Wall -Wextra -Wpedantic -Werror "$0.c" -o "$0" $(pkg-config --cflags --libs tvsqdz))";
    const ProgramResult result = RunProgram("/bin/sh", {"-c", script, built}, {{"PKG_CONFIG_PATH", ORIEL_PKG_CONFIG}});
    EXPECT_EQ(result.exitCode, 0) << name << ": " << result.errors;
    return built;
}

} // namespace

TEST(Examples, ProgramsOfHeaderAndReadmeAndTheFirstOneRun) {
    AddExamplePrinter();
    OrielText({"printers", "add", "Demo printer", "--driver", "Example Laser"});
    const struct {
        std::string program;
        const char* printer;
        const char* variable; // set to 2 before it runs
        const char* output;   // a part of it
    } rows[] = {
        {Build("header",
               R"(sed -n '/^ \* and reads and updates/,/^ \* The product has/s/^ \*     //p' include/tvsqdz.h)"),
         "Front desk", "ErrPaperJam", "paper jam: yes\n"},
        {Build("readme", "sed -n '/^```c$/,/^```$/{//!p}' README.md"), "Demo printer", "PageCount",
         "pages printed: 2\n"},
        {ProgramPath("first"), "Front desk", "TonerLevel",
         "(12 bytes)\nPrinterName: Front desk\nPrinterLocation: 2nd floor, by the window, written at 20"},
    };
    EXPECT_EQ(RunProgram(ProgramPath("first")).exitCode, 1) << "the product is not up";
    const RunningProduct product;
    for (const auto& row : rows) {
        OrielText({"set", row.printer, row.variable, "2"});
        const ProgramResult result = RunProgram(row.program);
        EXPECT_NE(result.output.find(row.output), std::string::npos) << result.output << result.errors;
        EXPECT_EQ(result.exitCode, 0) << row.program;
    }

    TestProcess loop = TestProcess::Program(ProgramPath("event_loop"), {"Front desk"});
    EXPECT_EQ(loop.Hear(), "watching");
    for (const char* level : {"41", "40"}) {
        OrielText({"set", "Front desk", "TonerLevel", level});
        EXPECT_EQ(loop.Hear(), std::string("TonerLevel: ") + level);
        OrielText({"set", "Front desk", "PrinterLocation", level});
        EXPECT_EQ(loop.Hear(), std::string("PrinterLocation: ") + level);
    }
    loop.CloseInput();
    EXPECT_EQ(loop.Wait(), 0) << loop.Errors();
}

// So that a C program which compiles finds each function in the library.
TEST(Examples, TheHeaderDeclaresWhatTheLibraryExports) {
    const auto sorted = [](const std::string& sed) {
        return RunProgram("/bin/sh", {"-c", "cd '" + SourcePath("") + "' && sed -n " + sed + " | LC_ALL=C sort"})
            .output;
    };
    const std::string declared = sorted(R"('s/^TVS_EXPORT int32_t TVS_CALL \([A-Za-z]*\)(.*/\1/p' include/tvsqdz.h)");
    EXPECT_EQ(declared, sorted(R"('s/^    \([A-Za-z]*\) *@[0-9]*$/\1/p' tvsqdz/exports.def)"));
    EXPECT_EQ(std::count(declared.begin(), declared.end(), '\n'), 37);
}

TEST(Examples, DemonstrationEndsWell) {
    const std::string bin = ProgramPath("");
    const ProgramResult result = RunProgram(SourcePath("scripts/demo"), {"--bin", bin.substr(0, bin.size() - 1)});
    EXPECT_EQ(result.exitCode, 0) << result.output << result.errors;
    EXPECT_NE(result.output.find("all as expected"), std::string::npos) << result.output;
}

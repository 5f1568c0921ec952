// The examples and the demonstration do what they show.
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>
#include <tvsqdz_status.h>

#include <cstring>
#include <fstream>

namespace {

std::string Hex(const void* bytes, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        constexpr char kDigits[] = "0123456789abcdef";
        const auto byte = static_cast<const unsigned char*>(bytes)[i];
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

// The lines of a file behind the one that is `before`, as long as they begin with the prefix, which is taken off, or
// have nothing but it.
std::string Lines(const std::string& file, const std::string& before, const std::string& prefix,
                  const std::string& end) {
    std::ifstream stream(SourcePath(file));
    std::string line, text;
    while (std::getline(stream, line) && line != before) {
    }
    while (std::getline(stream, line) && line != end)
        text += (line.starts_with(prefix) ? line.substr(prefix.size()) : "") + "\n";
    return text;
}

struct Printed {
    const char* where;
    std::string text;
    const char* printer;
    const char* variable; // set to 2 before it runs
    const char* output;
};

// Builds the text as a user would.
std::string Build(const Printed& program) {
    const std::string source = PrivateDirectory() + "/" + program.where + ".c";
    const std::string built = PrivateDirectory() + "/" + program.where;
    std::ofstream(source) << program.text;
    const ProgramResult result =
        RunProgram("/bin/sh",
                   {"-c",
                    ORIEL_C_COMPILER
                    R"( -std=c11 -Wall -Wextra -Wpedantic -Werror "$0" -o "$1" $(pkg-config --cflags --libs tvsqdz))",
                    source, built},
                   {{"PKG_CONFIG_PATH", ORIEL_PKG_CONFIG}});
    EXPECT_EQ(result.exitCode, 0) << program.where << ": " << result.errors;
    return built;
}

} // namespace

TEST(Examples, ProgramsOfHeaderAndReadmeBuildAndRun) {
    const Printed programs[] = {
        {"header",
         Lines("include/tvsqdz.h", " * and reads and updates variables through it:", " *     ",
               " * The product has to be up (\"oriel up\") and to know the printer (\"oriel printers\")."),
         "Front desk", "ErrPaperJam", "paper jam: yes\n"},
        {"readme", Lines("README.md", "```c", "", "```"), "Demo printer", "PageCount", "pages printed: 2\n"},
    };
    AddExamplePrinter();
    OrielText({"printers", "add", "Demo printer", "--driver", "Example Laser"});
    for (const Printed& program : programs) {
        const ProgramResult notUp = RunProgram(Build(program));
        EXPECT_EQ(notUp.exitCode, 1) << program.where;
        EXPECT_EQ(notUp.errors, std::string(program.printer) + ": " + TvsStatusText(TVS_E_UNAVAILABLE) + "\n");
    }
    RunningProduct product;
    for (const Printed& program : programs) {
        OrielText({"set", program.printer, program.variable, "2"});
        const ProgramResult result = RunProgram(PrivateDirectory() + "/" + program.where);
        EXPECT_EQ(result.output, program.output) << result.errors;
        EXPECT_EQ(result.exitCode, 0) << program.where;
    }
}

TEST(Examples, FirstProgramReadsUpdatesAndTells) {
    AddExamplePrinter();
    const std::string first = ProgramPath("first");
    const ProgramResult notUp = RunProgram(first);
    EXPECT_EQ(notUp.exitCode, 1);
    EXPECT_NE(notUp.errors.find("the product is not up"), std::string::npos) << notUp.errors;

    RunningProduct product;
    const ProgramResult result = RunProgram(first);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    const std::string written = OrielText({"info", "Front desk", "PrinterLocation"});
    EXPECT_EQ(result.output, "PrinterStatus: 0x0 0x0 0x0 (12 bytes)\nPrinterName: Front desk\n"
                             "PrinterLocation: 2nd floor, by the window, written at " +
                                 written.substr(0, 10) + " " + written.substr(11, 8) + " UTC\n");
}

TEST(Examples, ReaderSeesWhatOthersWrite) {
    AddExamplePrinter();
    RunningProduct product;
    TestProcess reader = TestProcess::Program(ProgramPath("reader"), {"Front desk"});
    EXPECT_EQ(reader.Hear(), "open");
    const auto reads = [&](const std::string& variable) {
        reader.Tell(variable);
        return reader.Hear();
    };
    EXPECT_EQ(reads("TonerLevel"), "100");
    OrielText({"set", "Front desk", "TonerLevel", "42"});
    EXPECT_EQ(reads("TonerLevel"), "42");
    EXPECT_EQ(reads("ServiceNote text"), "new");
    EXPECT_EQ(reads("Nothing"), "status -19");
    reader.CloseInput();
    EXPECT_EQ(reader.Wait(), 0) << reader.Errors();
}

TEST(Examples, QueuePrintsJobsInUtf8WhateverTheCodePage) {
    AddExamplePrinter();
    RunningProduct product;
    const Environment japanese = {{"ORIEL_ANSI_CODE_PAGE", "932"}};
    const auto shown = [&] { return RunProgram(ProgramPath("queue"), {"Front desk"}, japanese).output; };
    EXPECT_EQ(shown(), "0 waiting\n");
    TvsJobRecord jobs[2] = {};
    for (uint32_t i = 0; i < 2; ++i) {
        std::strcpy(jobs[i].jobName,
                    i == 0 ? "plain" : "\x95\x5C"); // one character of two bytes, the second a backslash
        std::strcpy(jobs[i].ownerName, "anna");
        jobs[i].jobId = 7 + i;
    }
    TvsPrintingJobRecord printing = {};
    std::memcpy(&printing, &jobs[1], sizeof jobs[1]);
    OrielText({"set", "Front desk", "PrinterQueue", "--hex", "02000000" + Hex(jobs, sizeof jobs)});
    OrielText({"set", "Front desk", "PrintingJobInfo", "--hex", Hex(&printing, sizeof printing)});
    EXPECT_EQ(shown(), "2 waiting\n7 plain of anna\n8 \u8868 of anna\nprinting 8 \u8868\n");
}

TEST(Examples, DemonstrationEndsWell) {
    const std::string bin = ProgramPath("");
    const ProgramResult result = RunProgram(SourcePath("scripts/demo"), {"--bin", bin.substr(0, bin.size() - 1)});
    EXPECT_EQ(result.exitCode, 0) << result.output << result.errors;
    EXPECT_NE(result.output.find("all as expected"), std::string::npos) << result.output;
}

// The examples and the demonstration do what they show.
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>
#include <tvsqdz.h>

#include <cstring>

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

} // namespace

TEST(Examples, FirstProgramReadsUpdatesAndTells) {
    AddExamplePrinter();
    const std::string first = ProgramPath("first");
    const ProgramResult notUp = RunProgram(first);
    EXPECT_EQ(notUp.exitCode, 1);
    EXPECT_NE(notUp.errors.find("is the product up?"), std::string::npos) << notUp.errors;

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

// What a user gets for each kind of command line: exit code, one line of error, one JSON document.
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

struct CommandLine {
    std::vector<std::string> arguments;
    int exitCode;
    std::string output; // a part of it
    std::string errors; // a part of the one line; empty: there is none
};

void Check(const CommandLine& line) {
    SCOPED_TRACE(testing::PrintToString(line.arguments));
    const ProgramResult result = Oriel(line.arguments);
    EXPECT_EQ(result.exitCode, line.exitCode) << result.errors;
    EXPECT_NE(result.output.find(line.output), std::string::npos) << result.output;
    EXPECT_NE(result.errors.find(line.errors), std::string::npos) << result.errors;
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), line.errors.empty() ? 0 : 1);
    if (line.errors.empty()) return;
    EXPECT_TRUE(result.errors.starts_with("oriel: ")) << result.errors;
    EXPECT_EQ(result.output, "");

    // The same failure for a program.
    Json document = OrielJson(line.arguments, line.exitCode);
    if (document.contains("variables")) document = document["variables"].empty() ? Json() : document["variables"][0];
    if (document.is_null()) return; // an empty list says it all
    EXPECT_EQ(document["error"]["exitCode"], line.exitCode) << document;
    EXPECT_FALSE(document["error"]["what"].get<std::string>().empty()) << document;
}

} // namespace

TEST(CommandLine, OnAFreshMachine) {
    const CommandLine kLines[] = {
        {{"--help"}, 0, "Exit codes:", ""},
        {{"--version"}, 0, "0.1.0", ""},
        {{}, 2, "", "subcommand"},
        {{"frobnicate"}, 2, "", "--help"},
        {{"get", "Front desk"}, 2, "", "VARIABLE"},
        {{"get", "Front desk", "PageCount", "--kind", "13"}, 2, "", "--kind"},
        {{"get", "Front desk", "PageCount"}, 1, "", "no printer is called \"Front desk\""},
        {{"get", "\xff", "PageCount"}, 2, "", "code page 1252"},
        {{"status"}, 3, "not registered", ""},
        {{"printers"}, 0, "no printers", ""},
        {{"printers", "add", "Front desk"}, 2, "", "--driver"},
        {{"printers", "add", "a,b", "--driver", "D"}, 1, "", "cannot add"},
        {{"printers", "add", "", "--driver", "D"}, 2, "", "1 to 259"},
        {{"printers", "remove", "Front desk"}, 1, "", "no such printer"},
        {{"reg"}, 2, "", "subcommand"},
        {{"reg", "query", "HKLM\\Nothing"}, 1, "", "no such key"},
        {{"reg", "query", "HKXX\\Nothing"}, 2, "", "HKLM"},
        {{"reg", "delete", "HKLM"}, 2, "", "root"},
        {{"reg", "set", "HKLM\\K", "V", "12x", "--type", "dword"}, 2, "", "12x"},
        {{"reg", "set", "HKLM\\K", "V", "0g", "--type", "binary"}, 2, "", "bytes"},
        {{"reg", "set", "HKLM\\K", "V", "1", "--type", "word"}, 2, "", "--type"},
        {{"reg", "import", "/nonexistent.reg"}, 1, "", "/nonexistent.reg"},
        {{"reg", "query", "HKLM\\K"}, 1, "", "no such key"}, // the refused ones made nothing
    };
    for (const CommandLine& line : kLines)
        Check(line);
}

TEST(CommandLine, WithoutTheServiceSaysHowToStartIt) {
    OrielText({"printers", "add", "Front desk", "--driver", "Some driver"});
    Check({{"get", "Front desk", "PageCount"},
           3,
           "",
           "not installed on this machine (status -16); install and start it"});
    OrielText({"reg", "set", "HKLM\\SOFTWARE\\Tavik\\Oriel", "DIRPATH", "\\nowhere\\"});
    Check({{"get", "Front desk", "PageCount"}, 3, "", "does not hold TVSDBN.EXE"});
    Check({{"up"}, 3, "", "if it moved, register this one: oriel reg set"});
    OrielText({"reg", "set", "HKLM\\SOFTWARE\\Tavik\\Oriel", "DIRPATH", WindowsPath(ProgramPath(""))});
    Check({{"get", "Front desk", "PageCount"}, 3, "", "start it with 'oriel up'"});
}

TEST(CommandLine, WithTheProductUp) {
    RunningProduct product;
    AddExamplePrinter();
    OrielText({"printers", "add", "Other", "--driver", "Unregistered"});
    const std::string p = "Front desk";
    const CommandLine kLines[] = {
        {{"status"}, 0, "running", ""},
        {{"up"}, 1, "", "already up"},
        {{"get", p, "PageCount"}, 0, "-1 (0xFFFFFFFF)", ""},
        {{"get", "FRONT DESK", "PageCount"}, 0, "-1", ""},
        {{"get", p, "pagecount"}, 1, "", "did you mean PageCount?"},
        {{"get", p, "AccessControlList"}, 1, "", "'oriel info'"},
        {{"info", p, "AccessControlList"}, 0, "T", ""},
        {{"vars", p, "*nothing*"}, 1, "", "no variable"},
        {{"set", p, "PageCount"}, 2, "", "one of VALUE"},
        {{"set", p, "PageCount", "1", "--hex", "01"}, 2, "", "one of VALUE"},
        {{"set", p, "PageCount", "12x"}, 2, "", "no number"},
        {{"set", p, "PageCount", "4294967296"}, 2, "", "32 bits"},
        {{"set", p, "PageCount", "--hex", "01 02"}, 2, "", "takes 4 bytes, these are 2"},
        {{"set", p, "ServiceNote", std::string(32, 'x')}, 2, "", "takes 31 bytes, this has 32"},
        {{"set", p, "ServiceNote", "\xe6\x97\xa5"}, 2, "", "code page 1252"},
        {{"set", p, "ServiceNote", "two", "words"}, 2, "", "takes one value"},
        {{"set", p, "CurrentStatus", "1"}, 2, "", "set the variables that it is made of"},
        {{"set", p, "PrinterBinConfig", "1"}, 2, "", "--hex or --file"},
        {{"set", p, "Port", "colour=1"}, 2, "", "portKind, portName, portDetail"},
        {{"get", p, "PageCount", "--kind", "0"}, 1, "", "TVORPZ.EXE"},
        {{"get", p, "PageCount", "--kind", "9"}, 0, "-1", ""},
        {{"get", "Other", "PageCount", "--kind", "1"}, 1, "", "status -80"},
        {{"get", "Other", "PageCount", "--kind", "9"}, 1, "", "cannot add a printer"},
    };
    for (const CommandLine& line : kLines)
        Check(line);

    StopProcess(ServiceProcess());
    const Json error = OrielJson({"get", p, "PageCount"}, 5)["error"];
    EXPECT_EQ(error["why"], "the status database service runs but does not answer");
    ContinueProcess(ServiceProcess());
    Check({{"get", p, "PageCount"}, 0, "-1", ""});
}

TEST_AS_ROOT(CommandLine, AnotherUserMayReadButNotChangeTheMachine) {
    RunningProduct product;
    AddExamplePrinter();
    OrielText({"get", "Front desk", "PageCount"});
    EXPECT_EQ(OrielAsNobody({"get", "Front desk", "PageCount"}).output, "-1 (0xFFFFFFFF)\n");
    EXPECT_EQ(OrielAsNobody({"status"}).exitCode, 0);
    // Nobody else has a window yet, and the folder of windows lies in root's directory.
    EXPECT_EQ(OrielAsNobody({"watch", "Front desk", "--by", "message", "--until", "PageCount=-1"}).exitCode, 0);
    for (const std::vector<std::string>& denied : std::vector<std::vector<std::string>>{
             {"reg", "set", "HKLM\\SOFTWARE\\X", "a", "b"},
             {"reg", "delete", "HKLM\\SOFTWARE\\Tavik", "--tree"},
             {"reg", "import", SourcePath("examples/example_laser.reg")},
             {"printers", "add", "P", "--driver", "D"},
             {"printers", "remove", "Front desk"},
         }) {
        const ProgramResult result = OrielAsNobody(denied);
        EXPECT_EQ(result.exitCode, 4) << denied[0] << " " << denied[1] << ": " << result.errors;
        EXPECT_NE(result.errors.find("access denied"), std::string::npos) << result.errors;
    }
    EXPECT_EQ(OrielText({"get", "Front desk", "TonerLevel"}), "100 (0x64)");
}

TEST(CommandLine, OutputIsColouredOnATerminalAndCheckedWhenItIsWritten) {
    const std::string oriel = ProgramPath("oriel");
    const auto onTerminal = [&](const Environment& environment) {
        return RunProgram("/usr/bin/script", {"-qec", oriel + " status", "/dev/null"}, environment).output;
    };
    EXPECT_NE(onTerminal({}).find("\x1b["), std::string::npos);
    EXPECT_EQ(onTerminal({{"NO_COLOR", "1"}}).find("\x1b["), std::string::npos);
    EXPECT_EQ(Oriel({"status"}).output.find("\x1b["), std::string::npos);

    const ProgramResult result = RunProgram("/bin/sh", {"-c", oriel + " printers >/dev/full"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.errors.find("could not be written"), std::string::npos) << result.errors;
}

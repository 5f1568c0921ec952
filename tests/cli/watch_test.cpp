// Watching from the command line: every form tells, conditions and time-outs end it.
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

const std::string kPrinter = "Front desk";

TestProcess Watch(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"watch", kPrinter});
    return TestProcess::Program(ProgramPath("oriel"), arguments);
}

} // namespace

TEST(Watch, EachFormTellsEachChangeUntilTheConditionHolds) {
    AddExamplePrinter();
    RunningProduct product;
    for (const std::string form : {"event", "message", "callback"}) {
        SCOPED_TRACE(form);
        OrielText({"set", kPrinter, "TonerLevel", "100"});
        TestProcess text =
            Watch({"TonerLevel", "ServiceNote", "PrinterStatus", "--by", form, "--until", "TonerLevel<=20"});
        EXPECT_EQ(text.Hear(), "watching TonerLevel: 100 (0x64)");
        text.Hear();
        text.Hear();
        TestProcess json = Watch({"--json", "--by", form, "--until", "Port.portName=LPT2:", "--until", "TonerLevel&4"});
        Json line = Json::parse(json.Hear());
        EXPECT_EQ(line["event"], "start");
        EXPECT_EQ(line["value"]["portName"], "");
        line = Json::parse(json.Hear());
        EXPECT_EQ(line["name"], "TonerLevel");
        EXPECT_EQ(line["value"], 100);
        TestProcess status = Watch({"PrinterStatus", "--by", form, "--timeout", "60"});
        status.Hear();

        OrielText({"set", kPrinter, "TonerLevel", "77"});
        EXPECT_TRUE(text.Hear().ends_with("Z  TonerLevel: 100 (0x64) -> 77 (0x4D)"));
        line = Json::parse(json.Hear());
        EXPECT_EQ(line["event"], "change");
        EXPECT_EQ(line["name"], "TonerLevel");
        EXPECT_EQ(line["old"], 100);
        EXPECT_EQ(line["value"], 77);
        EXPECT_EQ(line["printer"], kPrinter);
        OrielText({"set", kPrinter, "Port", "portName=LPT2:"}); // 77 has bit 4
        line = Json::parse(json.Hear());
        EXPECT_EQ(line["value"]["portName"], "LPT2:");
        EXPECT_EQ(json.Wait(), 0);
        OrielText({"set", kPrinter, "Port", "portName="});

        OrielText({"set", kPrinter, "PrinterStatus", "--hex", "01000000 00000000 00000000"});
        EXPECT_NE(text.Hear().find("PrinterStatus: 0, 0, 0 -> 1, 0, 0"), std::string::npos);
        status.Hear();
        OrielText({"set", kPrinter, "PrinterStatus", "--hex", "00000000 00000000 00000000"});
        text.Hear();
        OrielText({"set", kPrinter, "TonerLevel", "20"});
        EXPECT_TRUE(text.Hear().ends_with("77 (0x4D) -> 20 (0x14)"));
        EXPECT_EQ(text.Wait(), 0);
        status.Interrupt();
        EXPECT_EQ(status.Wait(), 0) << status.Errors();
    }
}

TEST(Watch, EndsAsItsOptionsSay) {
    AddExamplePrinter();
    RunningProduct product;
    struct Case {
        std::vector<std::string> arguments;
        int exitCode;
        const char* error; // part of the line on standard error
    };
    const Case kCases[] = {
        {{"--until", "TonerLevel=100"}, 0, ""},
        {{"--until", "ServiceNote=\"new\"", "--until", "PageCount=-1", "--until", "PageCount=unknown"}, 0, ""},
        {{"--until", "PageCount>5", "--timeout", "0.2"}, 5, "timed out: the condition was not met"}, // not known
        {{"TonerLevel", "--timeout", "0.1"}, 5, "timed out"},
        {{"TonerLevel", "AccessControlList", "--timeout", "0.1"},
         5,
         "AccessControlList of \"Front desk\": this variable"},
        {{"AccessControlList"}, 1, "this variable is write-only"},
        {{"--until", "TonerLevel"}, 2, "is not a condition"},
        {{"--until", "TonerLevel<many"}, 2, "is not a number"},
        {{"--until", "ServiceNote<x"}, 2, "compare numbers"},
        {{"--until", "Port.name=x"}, 2, "has no field"},
        {{"tonerlevel"}, 1, "did you mean TonerLevel?"},
        {{"TonerLevel", "--by", "message", "--kind", "9"}, 1, "the owner's process"},
    };
    for (const Case& row : kCases) {
        SCOPED_TRACE(row.arguments.back());
        TestProcess watch = Watch(row.arguments);
        watch.HearAll();
        EXPECT_EQ(watch.Wait(), row.exitCode);
        EXPECT_NE(watch.Errors().find(row.error), std::string::npos) << watch.Errors();
    }
    TestProcess unfulfilled = Watch({"--until", "TonerLevel=1"});
    unfulfilled.Hear();
    unfulfilled.Interrupt();
    EXPECT_EQ(unfulfilled.Wait(), 1);

    TestProcess asked = Watch({"--until", "TerminateManager!=0"});
    asked.Hear();
    OrielText({"terminate", kPrinter});
    EXPECT_EQ(asked.Wait(), 0);
}

TEST(Watch, WithoutNamesWatchesAllThatCanBeWatched) {
    AddExamplePrinter();
    RunningProduct product;
    // More than can be waited for, or registered, at once.
    const std::string model = R"(HKLM\SOFTWARE\Tavik\Oriel\Printers\Wide)";
    for (int i = 10; i < 30; ++i)
        OrielText({"reg", "set", model + R"(\Status Variables)", "Extra" + std::to_string(i),
                   "04000000 04010300 00000000", "--type", "binary"});
    OrielText({"printers", "add", "Wide", "--driver", "Wide"});
    const size_t readable = OrielJson({"vars", "Wide"})["variables"].size() - 1; // but for the access control list
    ASSERT_GT(readable, 63u + 10);
    for (const std::string form : {"event", "message", "callback"}) {
        SCOPED_TRACE(form);
        TestProcess watch = TestProcess::Program(ProgramPath("oriel"), {"watch", "Wide", "--json", "--by", form});
        for (size_t i = 0; i < readable; ++i)
            EXPECT_EQ(Json::parse(watch.Hear())["event"], "start");
        for (const std::string name : {"CurrentFeeder", "Extra29", "WarmupRemains"}) { // first, middle and last ones
            OrielText({"set", "Wide", name, form == "event" ? "3" : form == "message" ? "4" : "5"});
            EXPECT_EQ(Json::parse(watch.Hear())["name"], name);
        }
        watch.Interrupt();
        EXPECT_EQ(watch.Wait(), 0) << watch.Errors();
    }
}

TEST(Watch, SurvivesARestartOfTheServiceAndMarksIt) {
    AddExamplePrinter();
    RunningProduct product;
    std::vector<TestProcess> watches;
    for (const std::string form : {"event", "message", "callback"}) {
        watches.push_back(Watch({"TonerLevel", "WarmupRemains", "--json", "--by", form, "--until", "TonerLevel=3"}));
        watches.back().Hear();
        watches.back().Hear();
    }
    OrielText({"set", kPrinter, "WarmupRemains", "5"}); // which has no copy that would survive
    for (TestProcess& watch : watches)
        EXPECT_EQ(Json::parse(watch.Hear())["value"], 5);
    KillProcess(ServiceProcess());
    product.Event("service-ended");
    product.Event("service-started");
    for (TestProcess& watch : watches) {
        Json line = Json::parse(watch.Hear());
        if (line["event"] == "service-ended") line = Json::parse(watch.Hear());
        EXPECT_EQ(line["event"], "service-restarted") << line;
        line = Json::parse(watch.Hear());
        EXPECT_EQ(line["old"], 5) << line;
        EXPECT_EQ(line["value"], Json()) << line;
    }
    OrielText({"set", kPrinter, "TonerLevel", "3"});
    for (TestProcess& watch : watches) {
        EXPECT_EQ(Json::parse(watch.Hear())["value"], 3);
        EXPECT_EQ(watch.Wait(), 0) << watch.Errors();
    }
}

TEST(Watch, TellsErrorsOnLinesOfJsonAndOutputThatCannotBeWritten) {
    AddExamplePrinter();
    RunningProduct product;
    TestProcess mixed = Watch({"TonerLevel", "AccessControlList", "--json", "--timeout", "0.1"});
    for (const char* event : {"error", "start", "error"})
        EXPECT_EQ(Json::parse(mixed.Hear())["event"], event);
    EXPECT_EQ(mixed.Wait(), 5);
    TestProcess unknown = Watch({"--json", "--by", "letter"});
    EXPECT_EQ(Json::parse(unknown.Hear())["error"]["exitCode"], 2);

    const auto shell = [](const char* script) {
        return RunProgram("/bin/sh", {"-c", script}, {{"oriel", ProgramPath("oriel")}, {"d", PrivateDirectory()}});
    };
    const ProgramResult full = shell("\"$oriel\" watch 'Front desk' PageCount >/dev/full");
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_NE(full.errors.find("cannot write to standard output: No space"), std::string::npos) << full.errors;
    const ProgramResult closed = shell(R"(
        mkfifo "$d/pipe"; env --default-signal=PIPE "$oriel" watch 'Front desk' PageCount >"$d/pipe" & watch=$!
        exec 3<"$d/pipe"; read -r line <&3; exec 3<&-
        "$oriel" set 'Front desk' PageCount 9; wait $watch)");
    EXPECT_EQ(closed.exitCode, 1);
    EXPECT_NE(closed.errors.find("cannot write to standard output: Broken pipe"), std::string::npos) << closed.errors;
}

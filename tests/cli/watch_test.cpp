// Watching from the command line: every form tells, conditions and time-outs end it.
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>

#include <memory>

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
        TestProcess status = Watch({"PrinterStatus", "--by", form, "--timeout", "60"});
        status.Hear();

        OrielText({"set", kPrinter, "TonerLevel", "77"});
        EXPECT_TRUE(text.Hear().ends_with("Z  TonerLevel: 100 (0x64) -> 77 (0x4D)"));
        Json line = Json::parse(json.Hear());
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
    {
        RunningProduct product;
        struct Case {
            std::vector<std::string> arguments;
            int exitCode;
            const char* error; // part of the line on standard error
        };
        const Case kCases[] = {
            {{"--until", "TonerLevel=100"}, 0, ""},
            {{"--until", "ServiceNote=\"new\"", "--until", "PageCount=-1"}, 0, ""},
            {{"--until", "PageCount>5", "--timeout", "0.2"}, 5, "the condition did not come to hold"}, // not known
            {{"TonerLevel", "--timeout", "0.1"}, 5, "time to watch"},
            {{"--until", "TonerLevel"}, 2, "is no condition"},
            {{"--until", "TonerLevel<many"}, 2, "is no number"},
            {{"--until", "ServiceNote<x"}, 2, "compare numbers"},
            {{"--until", "Port.name=x"}, 2, "has no field"},
            {{"tonerlevel"}, 1, "did you mean TonerLevel?"},
            {{}, 2, "needs a variable"},
            {{"TonerLevel", "--by", "message", "--kind", "9"}, 1, "its owner's process"},
        };
        for (const Case& row : kCases) {
            SCOPED_TRACE(row.arguments.empty() ? "nothing" : row.arguments.back());
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

        TestProcess orphan = Watch({"TonerLevel"});
        orphan.Hear();
        KillProcess(ServiceProcess());
        EXPECT_EQ(orphan.Wait(), 3) << orphan.Errors();
        product.Terminate();
        product.Wait();
    }
}

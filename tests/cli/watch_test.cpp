// Watching from the command line: every form tells, conditions and time-outs end it.
#include "product.h"

namespace {

const std::string kForms[] = {"event", "message", "callback"};

TestProcess Watch(Words arguments, const std::string& printer = kPrinter) {
    arguments.insert(arguments.begin(), {"watch", printer});
    return TestProcess::Program(ProgramPath("oriel"), arguments);
}

void Set(const Words& arguments) {
    Words command = {"set", kPrinter};
    command.insert(command.end(), arguments.begin(), arguments.end());
    OrielText(command);
}

// The next line of one that watches with --json; the event must be this one.
Json Told(TestProcess& watch, const std::string& event, int timeoutMs = 20000) {
    Json line = Json::parse(watch.Hear(timeoutMs), nullptr, false);
    EXPECT_EQ(line.value("event", ""), event) << line;
    return line;
}

} // namespace

TEST(Watch, EachFormTellsEachChangeUntilTheConditionHolds) {
    const ExampleProduct product;
    for (const std::string& form : kForms) {
        SCOPED_TRACE(form);
        Set({"TonerLevel", "100"});
        Set({"Port", "portName="});
        TestProcess text = Watch({"TonerLevel", "PrinterStatus", "--by", form, "--until", "TonerLevel<=20"});
        EXPECT_EQ(text.Hear(), "watching TonerLevel: 100 (0x64)");
        text.Hear();
        TestProcess json = Watch({"--json", "--by", form, "--until", "Port.portName=LPT2:", "--until", "TonerLevel&4"});
        EXPECT_EQ(Told(json, "start")["value"]["portName"], "");
        Told(json, "start");

        Set({"TonerLevel", "77"});
        EXPECT_TRUE(text.Hear().ends_with("Z  TonerLevel: 100 (0x64) -> 77 (0x4D)"));
        const Json line = Told(json, "change");
        EXPECT_EQ(line["printer"], kPrinter);
        EXPECT_EQ(line["name"], "TonerLevel");
        EXPECT_EQ(line["old"], 100);
        EXPECT_EQ(line["value"], 77);
        Set({"Port", "portName=LPT2:"}); // 77 has bit 4
        EXPECT_EQ(Told(json, "change")["value"]["portName"], "LPT2:");
        EXPECT_EQ(json.Wait(), 0);
        Set({"PrinterStatus", "--hex", "01000000 00000000 0" + std::to_string(form.size()) + "000000"});
        EXPECT_TRUE(text.Hear().ends_with("-> 1, 0, " + std::to_string(form.size())));
        Set({"TonerLevel", "20"});
        EXPECT_TRUE(text.Hear().ends_with("77 (0x4D) -> 20 (0x14)"));
        EXPECT_EQ(text.Wait(), 0);
    }
}

TEST(Watch, EndsAsItsOptionsSay) {
    const ExampleProduct product;
    const struct {
        Words arguments;
        int exitCode;
        const char* error; // part of the line on standard error
    } rows[] = {
        {{"--until", "ServiceNote=\"new\"", "--until", "PageCount=-1", "--until", "PageCount=unknown"}, 0, ""},
        {{"--until", "PageCount>5", "--timeout", "0.2"}, 5, "timed out: the condition was not met"}, // not known
        {{"AccessControlList"}, 1, "this variable is write-only"},
        {{"--until", "TonerLevel<many"}, 2, "is not a number"},
        {{"--until", "ServiceNote<x"}, 2, "compare numbers"},
        {{"tonerlevel"}, 1, "did you mean TonerLevel?"},
        {{"TonerLevel", "--by", "message", "--kind", "9"}, 1, "the owner's process"},
    };
    for (const auto& row : rows) {
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

    // Errors on lines of JSON, and output that cannot be written.
    TestProcess mixed = Watch({"TonerLevel", "AccessControlList", "--json", "--timeout", "0.1"});
    for (const char* event : {"error", "start", "error"})
        Told(mixed, event);
    EXPECT_EQ(mixed.Wait(), 5);
    const std::pair<const char*, const char*> scripts[] = {
        {"\"$oriel\" printers >/dev/full", "No space"},
        {R"(mkfifo "$d/pipe"; env --default-signal=PIPE "$oriel" watch 'Front desk' PageCount >"$d/pipe" & watch=$!
            until [ -p "$d/pipe" ]; do sleep 0.01; done; exec 3<"$d/pipe"; read -r line <&3; exec 3<&-
            "$oriel" set 'Front desk' PageCount 9; wait $watch)",
         "Broken pipe"}};
    for (const auto& [script, error] : scripts) {
        const ProgramResult result =
            RunProgram("/bin/sh", {"-c", script}, {{"oriel", ProgramPath("oriel")}, {"d", PrivateDirectory()}});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_NE(result.errors.find(std::string("cannot write to standard output: ") + error), std::string::npos)
            << result.errors;
    }
}

TEST(Watch, WithoutNamesWatchesAllThatCanBeWatched) {
    const ExampleProduct product;
    // More than can be waited for, or registered, at once.
    const std::string model = R"(HKLM\SOFTWARE\Tavik\Oriel\Printers\Wide\Status Variables)";
    for (int i = 10; i < 30; ++i)
        OrielText({"reg", "set", model, "Extra" + std::to_string(i), "04000000 04010300 00000000", "--type", "binary"});
    OrielText({"printers", "add", "Wide", "--driver", "Wide"});
    const size_t readable = OrielJson({"vars", "Wide"})["variables"].size() - 1; // but for the access control list
    ASSERT_GT(readable, 63u + 10);
    int value = 2;
    for (const std::string& form : kForms) {
        SCOPED_TRACE(form);
        TestProcess watch = Watch({"--json", "--by", form}, "Wide");
        for (size_t i = 0; i < readable; ++i)
            Told(watch, "start");
        // First, middle and last ones; the last again and again, sooner than the periodic looks would find it.
        for (const std::string name : {"CurrentFeeder", "Extra29", "WarmupRemains", "WarmupRemains", "WarmupRemains",
                                       "WarmupRemains", "WarmupRemains", "WarmupRemains"}) {
            OrielText({"set", "Wide", name, std::to_string(++value)});
            EXPECT_EQ(Told(watch, "change", 3000)["name"], name);
        }
        watch.Interrupt();
        EXPECT_EQ(watch.Wait(), 0) << watch.Errors();
    }
}

TEST(Watch, SurvivesARestartOfTheServiceAndMarksIt) {
    ExampleProduct product;
    std::vector<TestProcess> watches;
    for (const std::string& form : kForms) {
        watches.push_back(Watch({"TonerLevel", "WarmupRemains", "--json", "--by", form, "--until", "TonerLevel=3"}));
        for (int i = 0; i < 2; ++i)
            Told(watches.back(), "start");
    }
    Set({"WarmupRemains", "5"}); // which has no copy that would survive
    for (TestProcess& watch : watches)
        EXPECT_EQ(Told(watch, "change")["value"], 5);
    product.KillService();
    for (TestProcess& watch : watches) {
        Json line = Json::parse(watch.Hear());
        if (line["event"] == "service-ended") line = Json::parse(watch.Hear());
        EXPECT_EQ(line["event"], "service-restarted") << line;
        line = Told(watch, "change");
        EXPECT_EQ(line["old"], 5) << line;
        EXPECT_EQ(line["value"], Json()) << line;
    }
    Set({"TonerLevel", "3"});
    for (TestProcess& watch : watches) {
        EXPECT_EQ(Told(watch, "change")["value"], 3);
        EXPECT_EQ(watch.Wait(), 0) << watch.Errors();
    }
}

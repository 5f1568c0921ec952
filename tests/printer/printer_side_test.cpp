// The printer side program against the real service, by a client that asks as the library does.
#include "not_here.h"
#include "printer_kit.h"
#include "private_machine.h"
#include "product/guards.h"

#include <fstream>

namespace {

std::string ScriptFile(const std::string& name, const std::string& text) {
    const std::string path = PrivateDirectory() + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

TestProcess Start(const std::string& script, size_t printer = 0, const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"--printer", kPrinters[printer], "--script",
                                          ScriptFile("p" + std::to_string(printer) + ".script", script)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return TestProcess::Program(ProgramPath("TVSPSD.EXE"), arguments);
}

// A printer side that serves when the constructor returns.
struct Serving {
    Serving(const PrinterMachine& machine, const std::string& script, size_t printer = 0,
            const std::vector<std::string>& more = {})
        : process(Start(script, printer, more)) {
        EXPECT_TRUE(WaitUntil([&] { return TakesRequests(machine.databases[printer]); })) << process.Errors();
    }
    TestProcess process;
};

} // namespace

TEST(Script, ErrorsAreToldWithTheirLines) {
    const std::pair<const char*, const char*> rows[] = {
        // The line, and its error; empty: it is right.
        {"set PrinterStatus 1 -1 0xFFFFFFFF # and a comment", ""},
        {"set Port 1 \"LPT1: \\\"#\\\" \\x80\":128 zero:128", ""},
        {"  set Mixed 1:8 -2:16 3:32 hex:00ff \"text\"\r", ""},
        {"sett PageCount 1", "there is no statement 'sett'"},
        {"pages 0", "'0' is no number of pages from 1 to 100000"},
        {"queue Events 12 1001", "'1001' is no length from 1 to 1000"},
        {"queue Events 65536 1000", "the queue is larger than any can be"},
        {"set PageCount 4294967296", "'4294967296' is no 32-bit number"},
        {"set Level 256:8", "'256:8' does not fit into its bits"},
        {"set PrinterModel \"abc\":3", "the text and its NUL have 4 bytes"},
        {"set PrinterModel \"\xC3\xA9\"", "only ASCII here; write other bytes of the ANSI code page as \\xHH"},
        {"set X hex:123", "'3' is no byte of two hexadecimal digits"},
        {"set ANameThatNoRequestVariableCanHold 1", "'ANameThatNoRequestVariableCanHold' has more than 31 characters"},
        {"wait 5", "'5' is no duration such as 200ms, 5s, 10m or 8h"},
        {"on jam PageCount refuse", "requests are 'read', 'write' and 'refresh', not 'jam'"},
        {"on read PageCount delay 25h", "no answer takes longer than a day"},
        {"repeat", "'repeat' needs a 'wait' of 100ms or more before it"},
        {"wait 100ms", ""},
        {"repeat", ""},
        {"set PageCount 1", "nothing follows 'repeat'"},
    };
    std::string script, expected;
    for (int line = 1; const auto& [text, error] : rows) {
        script += text + std::string("\n");
        if (*error) expected += "TVSPSD: bad.script:" + std::to_string(line) + ": " + error + "\n";
        ++line;
    }
    const ProgramResult result =
        RunProgram(ProgramPath("TVSPSD.EXE"), {"--check", "--script", ScriptFile("bad.script", script)});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.errors, expected);
}

TEST(PrinterSide, KeepsItsVariablesTrueAndAnswersRequests) {
    const PrinterMachine machine;
    const Database& database = machine.databases[0];
    constexpr const char* kScript = "set PrinterStatus 1 2\nset PrinterModel \"Example\"\nset PrinterBinConfig 7 8\n"
                                    "set Level 200\nset Temperature -3\nset Unknown 1\nset PageCount 41\n"
                                    "on read ErrPaperJam delay 50ms set ErrPaperJam 3\non read PrinterStatus refuse\n"
                                    "on read PrinterModel fail -77\non read Silent ignore\n"
                                    "on write Level delay 20ms refuse\n";
    Serving side(machine, kScript, 0, {"--port", "LPT7:"});
    EXPECT_EQ(database.Value("PrinterStatus"), Number(1) + Number(2) + Number(0));
    EXPECT_EQ(database.Value("PrinterModel"), BytesOf("Example") + Bytes(64 - 8));
    EXPECT_EQ(database.Value("PrinterBinConfig"), (Bytes{8, 0, 0, 0, 7, 0, 0, 0, 8, 0, 0, 0}));
    EXPECT_EQ(database.Value("Temperature"), (Bytes{0xFD, 0xFF}));
    EXPECT_EQ(database.Value("Port"), Number(1) + BytesOf("LPT7:") + Bytes(260 - 10));

    ASSERT_EQ(database.Set("PageCount", 0), kDone);
    EXPECT_EQ(DirectRead(database, "PageCount"), 0);
    EXPECT_EQ(database.NumberIn("PageCount"), 41u) << "stored before the answer";
    EXPECT_EQ(DirectRead(database, "ErrPaperJam"), 0);
    EXPECT_EQ(database.NumberIn("ErrPaperJam"), 3u);
    EXPECT_EQ(DirectRead(database, "PrinterStatus"), -50);
    EXPECT_EQ(DirectRead(database, "PrinterModel"), -77);
    for (const std::string_view text : {"ServiceTag", "", "pagecount", "ATextThatFillsItsFieldWithoutNul"})
        EXPECT_EQ(DirectRead(database, text.substr(0, 31)), -19) << text;
    EXPECT_EQ(DirectRead(database, "Unknown"), kUnknownVariable) << "the printer has it, the database does not";

    EXPECT_EQ(DirectWrite(database, "PageCount", Number(5)), 0);
    EXPECT_EQ(database.NumberIn("PageCount"), 5u);
    EXPECT_EQ(DirectWrite(database, "PrinterBinConfig", {2, 0, 0, 0, 0xAA, 0xBB}), 0);
    for (const Bytes& lying : {Bytes{9, 0, 0, 0, 1}, Bytes{1, 0}, Bytes{}})
        EXPECT_EQ(DirectWrite(database, "PrinterBinConfig", lying), kWrongSize);
    EXPECT_EQ(DirectWrite(database, "Level", {1}), -50);
    for (const char* text : {"NoCompanionW", "PageCount", "W", ""})
        EXPECT_EQ(Request(database, "WriteRequest", text).Result(), -19) << text;

    ASSERT_EQ(database.Write("PrinterModel", BytesOf("Another")), kDone);
    ASSERT_EQ(database.Write("RefreshStatus", BytesOf("all")), kDone);
    EXPECT_EQ(Request(database, "WriteRequest", "RefreshStatus").Result(), kUnknownVariable) << "of Unknown";
    EXPECT_EQ(database.Value("PrinterModel"), BytesOf("Example") + Bytes(64 - 8));

    // One that is never answered is not answered by what comes for the next.
    EXPECT_FALSE(Request(database, "ReadRequest", "Silent").Answered(100));
    Request pending(database, "ReadRequest", "Silent");
    EXPECT_FALSE(pending.Answered(100));
    EXPECT_EQ(database.Set("TerminateManager", 1), kDone);
    EXPECT_EQ(side.process.Wait(), 0);
    EXPECT_EQ(pending.Result(), -50) << "nobody is left waiting";
    EXPECT_EQ(database.NumberIn("PrinterExtStatus") & 1, 0u);
    EXPECT_EQ(database.NumberIn("SpoolerStatus") & 0xC, 0u);
    EXPECT_NE(side.process.Errors().find("p0.script:6: \"Unknown\" does not take this value (-5)"), std::string::npos)
        << side.process.Errors();
}

TEST(PrinterSide, ReplaysItsScriptAsTimeGoesOn) {
    const PrinterMachine machine;
    const Database& database = machine.databases[0];
    constexpr const char* kScript = "set ErrPaperJam 0\nwait 1h\n"
                                    "set ErrPaperJam 1\non read * refuse\nwait 1h\n"
                                    "set ErrPaperJam 0\non read * normal\nwait 1h\nrepeat\n";
    const Serving side(machine, kScript, 0, {"--speed", "10000"});
    int compared = 0;
    for (DWORD expected = 1; compared < 3; expected = 1 - expected) {
        ASSERT_TRUE(WaitUntil([&] { return database.NumberIn("ErrPaperJam") == expected; }));
        const LONG result = DirectRead(database, "ErrPaperJam");
        if (database.NumberIn("ErrPaperJam") != expected) continue; // the hour was over meanwhile
        EXPECT_EQ(result, expected == 1 ? -50 : 0);
        ++compared;
    }
}

TEST(PrinterSide, ForwardedRequestsAreCarriedOutOnce) {
    const PrinterMachine machine;
    const Database& database = machine.databases[0];
    const Serving side(machine, "set LMFunction 1\nset PageCount 10\nset Level 1\non read PageCount delay 1ms\n"
                                "on read Silent fail -101\n");
    for (const auto& [variable, result] :
         {std::pair{"PageCount", 0}, {"Silent", -101}, {"Nothing", -19}, {"PageCount", 0}}) {
        ASSERT_EQ(database.Write("ReadRequest", BytesOf(variable)), kDone);
        EXPECT_EQ(ForwardRequest("ReadRequest:" + kPrinters[0]), result) << variable;
    }
    // An event that somebody left set tells something once.
    for (const char* variable : {"ForwardMailbox", "ReadRequest", "LMFunction"}) {
        const auto name = product::VariableEventName(true, DatabaseOf(0), variable, product::VariableSignal::Updated);
        const KernelHandle event{OpenEventA(EVENT_ALL_ACCESS, FALSE, name.text)};
        EXPECT_TRUE(SetEvent(event.Get()));
        EXPECT_TRUE(WaitUntil([&] { return WaitForSingleObject(event.Get(), 0) == WAIT_TIMEOUT; })) << variable;
    }
    // What stands in the request variable is not carried out for itself too.
    const DWORD writes = database.Info("Level").writes;
    const DWORD result = database.NumberIn("RWResult");
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(database.Write("LevelW", {static_cast<unsigned char>(i)}), kDone);
        ASSERT_EQ(database.Write("WriteRequest", BytesOf("LevelW")), kDone);
        EXPECT_EQ(ForwardRequest("WriteRequest:" + kPrinters[0]), 0);
        EXPECT_EQ(database.Value("Level"), Bytes{static_cast<unsigned char>(i)});
    }
    PauseMs(400); // longer than a request in the variable waits for its forwarding
    EXPECT_EQ(database.Info("Level").writes - writes, 3u);
    EXPECT_EQ(database.NumberIn("RWResult"), result) << "the requester writes it";
}

TEST(PrinterSide, AKilledOneIsFollowedByAnother) {
    PrinterMachine machine;
    const Database& database = machine.databases[0];
    {
        Serving first(machine, "set PageCount 1\non read PageCount delay 1h\n");
        Request request(database, "ReadRequest", "PageCount");
        EXPECT_FALSE(request.Answered(100));
        TestProcess second = Start("set PageCount 2\n");
        EXPECT_FALSE(request.Answered(200)) << "while the first lives the other stands by";
        first.process.Kill();
        EXPECT_EQ(request.Result(), 0) << "the second found a request whose requester waits";
        EXPECT_EQ(database.NumberIn("PageCount"), 2u);
        second.Kill();
    }
    // What is over is not done again.
    {
        const Serving third(machine, "on read PageCount set ErrPaperJam 9\n");
        EXPECT_EQ(DirectRead(database, "ErrPaperJam"), -19);
        EXPECT_EQ(database.NumberIn("ErrPaperJam"), 0xFFFFFFFF);
    }

    const Serving side(machine, "set PageCount 3\n", 1);
    machine.service->process.Kill();
    machine.StartService();
    ASSERT_TRUE(WaitUntil([&] { return TakesRequests(machine.databases[1]); })) << "a new service is found";
    EXPECT_EQ(machine.databases[1].NumberIn("PageCount"), 3u);
    ASSERT_EQ(machine.databases[1].Write("ReadRequest", BytesOf("PageCount")), kDone);
    EXPECT_EQ(ForwardRequest("ReadRequest:" + kPrinters[1]), 0);
}

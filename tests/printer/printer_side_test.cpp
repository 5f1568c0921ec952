// The printer side program against the real service, by a client that asks as the library does.
#include "not_here.h"
#include "printer_machine.h"
#include "private_machine.h"

#include <atomic>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

namespace {

const std::vector<VariableRow> kVariables = {
    {"ReadRequest", kTypeString, Bytes(32)},
    {"WriteRequest", kTypeString, Bytes(32)},
    {"RefreshStatus", kTypeString, Bytes(260)},
    {"RWResult", kTypeNumber, Number(0)},
    {"LMFunction", kTypeNumber, Number(0)},
    {"SpoolerStatus", kTypeNumber, Number(0)},
    {"PrinterExtStatus", kTypeNumber, Number(0)},
    {"TerminateManager", kTypeNumber, Number(0)},
    {"PrinterStatus", kTypeRecord, Bytes(12)},
    {"ErrPaperJam", kTypeNumber, Number(0xFFFFFFFF)},
    {"PageCount", kTypeNumber, Number(0xFFFFFFFF)},
    {"PrinterModel", kTypeString, Bytes(64)},
    {"PrinterBinConfig", kTypeVariableLength, {4, 0, 0, 0, 0, 0, 0, 0}},
    {"Port", kTypeRecord, Bytes(260)},
    {"Level", kTypeByte, {0}},
    {"Temperature", kTypeWord, {0, 0}},
};

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

DWORD NumberOf(DWORD database, const char* variable) {
    return U32At(ValueOf(database, variable), 0);
}

bool TakesRequests(DWORD database) {
    return (NumberOf(database, "PrinterExtStatus") & 1) != 0 && NumberOf(database, "SpoolerStatus") == 0xC;
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

// What a requester does, up to its wait.
struct Request {
    Request(DWORD handle, const char* variable, std::string_view text, size_t printer = 0) : database(handle) {
        const KernelName name = VariableEventName(true, DatabaseOf(printer), "RWResult", VariableSignal::Updated);
        event = CreateEventA(nullptr, TRUE, FALSE, name.text);
        EXPECT_EQ(WatchVariable(database, "RWResult", kEveryWrite), kDone);
        before = Writes();
        EXPECT_EQ(WriteVariable(database, variable, BytesOf(text)), kDone);
    }
    ~Request() {
        CloseHandle(event);
        UnwatchVariable(database, "RWResult");
    }
    DWORD Writes() const {
        VariableInfo info = {};
        EXPECT_EQ(GetVariableInfo(database, "RWResult", &info), kDone);
        return info.writes;
    }
    // The answer may have come before the wait, so there is a look now and then.
    bool Answered(DWORD waitMs) {
        const double deadline = NowMs() + waitMs;
        while (Writes() == before && NowMs() < deadline)
            WaitForSingleObject(event, 20);
        return Writes() != before;
    }
    LONG Result(DWORD waitMs = 10000) {
        EXPECT_TRUE(Answered(waitMs));
        return static_cast<LONG>(NumberOf(database, "RWResult"));
    }
    DWORD database;
    HANDLE event;
    DWORD before;
};

LONG DirectRead(DWORD database, std::string_view variable) {
    return Request(database, "ReadRequest", variable).Result();
}

LONG DirectWrite(DWORD database, const std::string& variable, const Bytes& value) {
    if (WriteVariable(database, variable + "W", value) != kDone) return -1000;
    return Request(database, "WriteRequest", variable + "W").Result();
}

Bytes Padded(Bytes bytes, size_t size) {
    bytes.resize(size);
    return bytes;
}

} // namespace

TEST(Script, ErrorsAreToldWithTheirLines) {
    const struct {
        const char* line;
        const char* error; // empty: the line is right
    } rows[] = {
        {"# a comment", ""},
        {"set PrinterStatus 1 -1 0xFFFFFFFF # and a comment", ""},
        {"set Port 1 \"LPT1: \\\"#\\\" \\x80\":128 zero:128", ""},
        {"  set Mixed 1:8 -2:16 3:32 hex:00ff \"text\"\r", ""},
        {"on read * delay 2s refuse", ""},
        {"on write PageCount fail -38", ""},
        {"on refresh delay 0ms", ""},
        {"initially PageCount 7", ""},
        {"pages 3", ""},
        {"jobs 300ms", ""},
        {"jobs hold", ""},
        {"queue Events 12 3", ""},
        {"append Events \"x\"", ""},
        {"", ""},
        {"sett PageCount 1", "there is no statement 'sett'"},
        {"pages 0", "'0' is no number of pages from 1 to 100000"},
        {"jobs 0s", "a page takes from 1ms to 60m"},
        {"queue Events 12 1001", "'1001' is no length from 1 to 1000"},
        {"queue Events 65536 1000", "the queue is larger than any can be"},
        {"set", "there should be the name of a variable"},
        {"set PageCount", "there should be a value"},
        {"set PageCount 4294967296", "'4294967296' is no 32-bit number"},
        {"set PageCount 12x", "'12x' is no 32-bit number"},
        {"set Level 256:8", "'256:8' does not fit into its bits"},
        {"set Level -129:8", "'-129:8' does not fit into its bits"},
        {"set PrinterModel \"abc\":3", "the text and its NUL have 4 bytes"},
        {"set PrinterModel \"abc", "the text has no closing quote"},
        {"set PrinterModel \"a\\qc\"", "there is no escape \\q"},
        {"set PrinterModel \"\xC3\xA9\"", "only ASCII here; write other bytes of the ANSI code page as \\xHH"},
        {"set X hex:123", "'3' is no byte of two hexadecimal digits"},
        {"set ANameThatNoRequestVariableCanHold 1", "'ANameThatNoRequestVariableCanHold' has more than 31 characters"},
        {"wait 5", "'5' is no duration such as 200ms, 5s, 10m or 8h"},
        {"wait 5s 6s", "nothing should follow, but there is '6s'"},
        {"on jam PageCount refuse", "requests are 'read', 'write' and 'refresh', not 'jam'"},
        {"on read PageCount", "there should be 'delay', 'normal', 'set', 'fail', 'refuse' or 'ignore'"},
        {"on read PageCount fail 0", "a failure is not 0"},
        {"on read PageCount delay 25h", "no answer takes longer than a day"},
        {"repeat", "'repeat' needs a 'wait' of 100ms or more before it"},
        {"wait 100ms", ""},
        {"repeat", ""},
        {"set PageCount 1", "nothing follows 'repeat'"},
    };
    std::string script, expected;
    int line = 0;
    for (const auto& row : rows) {
        script += row.line + std::string("\n");
        ++line;
        if (*row.error) expected += "TVSPSD: bad.script:" + std::to_string(line) + ": " + row.error + "\n";
    }
    const ProgramResult result =
        RunProgram(ProgramPath("TVSPSD.EXE"), {"--check", "--script", ScriptFile("bad.script", script)});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.errors, expected);
    EXPECT_EQ(RunProgram(ProgramPath("TVSPSD.EXE"), {"--check", "--script", ScriptFile("empty.script", "")}).exitCode,
              0);
    EXPECT_EQ(RunProgram(ProgramPath("TVSPSD.EXE"), {"--check", "--script", PrivateDirectory() + "/none"}).exitCode, 2);
    EXPECT_EQ(RunProgram(ProgramPath("TVSPSD.EXE"), {"--printer", "P"}).exitCode, 2);
}

TEST(PrinterSide, KeepsItsVariablesTrueAndAnswersRequests) {
    const PrinterMachine machine(20000, kVariables);
    const DWORD database = machine.databases[0];
    Serving side(machine,
                 "set PrinterStatus 1 2\n"
                 "set PrinterModel \"Example\"\n"
                 "set PrinterBinConfig 7 8\n"
                 "set Level 200\n"
                 "set Temperature -3\n"
                 "set Unknown 1\n"
                 "set PageCount 41\n"
                 "on read ErrPaperJam delay 50ms set ErrPaperJam 3\n"
                 "on read PrinterStatus refuse\n"
                 "on read PrinterModel fail -77\n"
                 "on read Silent ignore\n"
                 "on write Level delay 20ms refuse\n",
                 0, {"--port", "LPT7:"});
    Bytes two = Number(1);
    two.resize(8);
    two[4] = 2;
    EXPECT_EQ(ValueOf(database, "PrinterStatus"), Padded(two, 12));
    EXPECT_EQ(ValueOf(database, "PrinterModel"), Padded(BytesOf("Example"), 64));
    EXPECT_EQ(ValueOf(database, "PrinterBinConfig"), (Bytes{8, 0, 0, 0, 7, 0, 0, 0, 8, 0, 0, 0}));
    EXPECT_EQ(ValueOf(database, "Level"), Bytes{200});
    EXPECT_EQ(ValueOf(database, "Temperature"), (Bytes{0xFD, 0xFF}));
    Bytes port = Number(1);
    port.insert(port.end(), {'L', 'P', 'T', '7', ':'});
    EXPECT_EQ(ValueOf(database, "Port"), Padded(port, 260));

    ASSERT_EQ(WriteVariable(database, "PageCount", Number(0)), kDone);
    EXPECT_EQ(DirectRead(database, "PageCount"), 0);
    EXPECT_EQ(NumberOf(database, "PageCount"), 41u) << "stored before the answer";
    EXPECT_EQ(DirectRead(database, "ErrPaperJam"), 0);
    EXPECT_EQ(NumberOf(database, "ErrPaperJam"), 3u);
    EXPECT_EQ(DirectRead(database, "PrinterStatus"), -50);
    EXPECT_EQ(DirectRead(database, "PrinterModel"), -77);
    for (const std::string_view text : {"ServiceTag", "", "pagecount", "ATextThatFillsItsFieldWithoutNul"})
        EXPECT_EQ(DirectRead(database, text.substr(0, 31)), -19) << text;
    EXPECT_EQ(DirectRead(database, "Unknown"), kUnknownVariable) << "the printer has it, the database does not";

    EXPECT_EQ(DirectWrite(database, "PageCount", Number(5)), 0);
    EXPECT_EQ(NumberOf(database, "PageCount"), 5u);
    EXPECT_EQ(DirectWrite(database, "PrinterBinConfig", {2, 0, 0, 0, 0xAA, 0xBB}), 0);
    EXPECT_EQ(ValueOf(database, "PrinterBinConfig"), (Bytes{2, 0, 0, 0, 0xAA, 0xBB}));
    for (const Bytes& lying : {Bytes{9, 0, 0, 0, 1}, Bytes{1, 0}, Bytes{}})
        EXPECT_EQ(DirectWrite(database, "PrinterBinConfig", lying), kWrongSize);
    EXPECT_EQ(DirectWrite(database, "Level", {1}), -50);
    for (const char* text : {"NoCompanionW", "PageCount", "W", ""})
        EXPECT_EQ(Request(database, "WriteRequest", text).Result(), -19) << text;

    ASSERT_EQ(WriteVariable(database, "PrinterModel", BytesOf("Another")), kDone);
    ASSERT_EQ(WriteVariable(database, "RefreshStatus", BytesOf("all")), kDone);
    EXPECT_EQ(Request(database, "WriteRequest", "RefreshStatus").Result(), kUnknownVariable) << "of Unknown";
    EXPECT_EQ(ValueOf(database, "PrinterModel"), Padded(BytesOf("Example"), 64));

    // One that is never answered is not answered by what comes for the next.
    {
        Request silent(database, "ReadRequest", "Silent");
        EXPECT_FALSE(silent.Answered(100));
    }
    // The event of termination is everybody's, and ends no printer side. An administrator's write does.
    const HANDLE termination = CreateEventA(nullptr, TRUE, FALSE, "Global\\TVORSQD:TerminateManager");
    SetEvent(termination);
    EXPECT_EQ(DirectRead(database, "PageCount"), 0);
    Request pending(database, "ReadRequest", "Silent");
    EXPECT_FALSE(pending.Answered(100));
    EXPECT_EQ(WriteVariable(database, "TerminateManager", Number(1)), kDone);
    EXPECT_EQ(side.process.Wait(), 0);
    CloseHandle(termination);
    EXPECT_EQ(pending.Result(5000), -50) << "nobody is left waiting";
    EXPECT_EQ(NumberOf(database, "PrinterExtStatus") & 1, 0u);
    EXPECT_EQ(NumberOf(database, "SpoolerStatus") & 0xC, 0u);
    EXPECT_NE(side.process.Errors().find("p0.script:6: \"Unknown\" does not take this value (-5)"), std::string::npos)
        << side.process.Errors();
}

TEST(PrinterSide, ReplaysItsScriptAsTimeGoesOn) {
    const PrinterMachine machine(20000, kVariables);
    const DWORD database = machine.databases[0];
    const Serving side(machine,
                       "set ErrPaperJam 0\n"
                       "wait 1h\n"
                       "set ErrPaperJam 1\n"
                       "on read * refuse\n"
                       "wait 1h\n"
                       "set ErrPaperJam 0\n"
                       "on read * normal\n"
                       "wait 1h\n"
                       "repeat\n",
                       0, {"--speed", "10000"});
    int compared = 0;
    for (DWORD expected = 1; compared < 4; expected = 1 - expected) {
        ASSERT_TRUE(WaitUntil([&] { return NumberOf(database, "ErrPaperJam") == expected; }));
        const LONG result = DirectRead(database, "ErrPaperJam");
        if (NumberOf(database, "ErrPaperJam") != expected) continue; // the hour was over meanwhile
        EXPECT_EQ(result, expected == 1 ? -50 : 0);
        ++compared;
    }
}

TEST(PrinterSide, ForwardedRequestsOfManyThreadsDoNotCross) {
    const PrinterMachine machine(20000, kVariables);
    std::vector<Serving> sides;
    for (size_t i = 0; i < std::size(kPrinters); ++i) {
        const std::string number = std::to_string(i + 1);
        sides.emplace_back(machine,
                           "set LMFunction 1\nset PageCount 10" + number + "\nset Level " + number +
                               "\non read PageCount delay 1ms\non read Silent fail -10" + number + "\n",
                           i);
    }
    std::mutex requestMutex[std::size(kPrinters)];
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (size_t thread = 0; thread < 16; ++thread) {
        threads.emplace_back([&, thread] {
            for (size_t round = 0; round < 12; ++round) {
                const size_t printer = (thread + round) % std::size(kPrinters);
                const DWORD database = machine.databases[printer];
                const struct {
                    const char* variable;
                    LONG result;
                } rows[] = {{"PageCount", 0}, {"Silent", -101 - static_cast<LONG>(printer)}, {"Nothing", -19}};
                const auto& row = rows[(thread + round) % std::size(rows)];
                const std::lock_guard hold(requestMutex[printer]);
                const bool written = WriteVariable(database, "ReadRequest", BytesOf(row.variable)) == kDone;
                right += written && ForwardRequest("ReadRequest:" + kPrinters[printer]) == row.result;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right, 16 * 12);

    // Once each: what stands in the request variable is not carried out for itself too.
    const DWORD database = machine.databases[0];
    VariableInfo before = {}, after = {};
    ASSERT_EQ(GetVariableInfo(database, "Level", &before), kDone);
    const DWORD result = NumberOf(database, "RWResult");
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(WriteVariable(database, "LevelW", {static_cast<unsigned char>(i)}), kDone);
        ASSERT_EQ(WriteVariable(database, "WriteRequest", BytesOf("LevelW")), kDone);
        EXPECT_EQ(ForwardRequest("WriteRequest:" + kPrinters[0]), 0);
        EXPECT_EQ(ValueOf(database, "Level"), Bytes{static_cast<unsigned char>(i)});
    }
    PauseMs(400); // longer than a request in the variable waits for its forwarding
    ASSERT_EQ(GetVariableInfo(database, "Level", &after), kDone);
    EXPECT_EQ(after.writes - before.writes, 3u);
    EXPECT_EQ(NumberOf(database, "RWResult"), result) << "the requester writes it";
    EXPECT_EQ(ForwardRequest("Refresh:" + kPrinters[0]), 0);
    EXPECT_EQ(DirectRead(database, "PageCount"), 0) << "a requester that does not forward is answered all the same";
}

TEST(PrinterSide, AKilledOneIsFollowedByAnother) {
    PrinterMachine machine(20000, kVariables);
    const DWORD database = machine.databases[0];
    {
        Serving first(machine, "set PageCount 1\non read PageCount delay 1h\non refresh ignore\n");
        Request request(database, "ReadRequest", "PageCount");
        EXPECT_FALSE(request.Answered(100));
        TestProcess second = Start("set PageCount 2\n");
        EXPECT_FALSE(request.Answered(200)) << "while the first lives the other stands by";
        std::thread forwarder([] { EXPECT_LE(ForwardRequest("Refresh:" + kPrinters[0]), 0); });
        first.process.Kill();
        EXPECT_EQ(request.Result(), 0) << "the second found a request whose requester waits";
        EXPECT_EQ(NumberOf(database, "PageCount"), 2u);
        forwarder.join();
        second.Kill();
    }
    // What is over is not done again.
    ASSERT_EQ(WriteVariable(database, "PageCount", Number(0)), kDone);
    ASSERT_EQ(WriteVariable(database, "RWResult", Number(1234)), kDone);
    {
        const Serving third(machine, "on read PageCount set ErrPaperJam 9\n");
        EXPECT_EQ(DirectRead(database, "ErrPaperJam"), -19);
        EXPECT_EQ(NumberOf(database, "ErrPaperJam"), 0xFFFFFFFF);
    }

    const Serving side(machine, "set PageCount 3\n", 1);
    machine.service->process.Kill();
    machine.StartService();
    ASSERT_TRUE(WaitUntil([&] { return TakesRequests(machine.databases[1]); })) << "a new service is found";
    EXPECT_EQ(NumberOf(machine.databases[1], "PageCount"), 3u);
    ASSERT_EQ(WriteVariable(machine.databases[1], "ReadRequest", BytesOf("PageCount")), kDone);
    EXPECT_EQ(ForwardRequest("ReadRequest:" + kPrinters[1]), 0);
}

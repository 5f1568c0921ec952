// The start-up process: what it makes, what it undoes, and that it keeps the service running.
#include "notify_socket.h"
#include "product.h"

#include <csignal>
#include <fstream>
#include <set>

TEST(Up, MakesTheProductReadyKeepsItSoAndUndoesItOnInterrupt) {
    const std::string serviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\TVORSDB";
    // A service of another place is replaced.
    OrielText({"reg", "set", serviceKey, "ImagePath", "\\old\\TVSDBN.EXE"});
    OrielText({"reg", "set", serviceKey, "Type", "16", "--type", "dword"});
    OrielText({"reg", "set", serviceKey, "Start", "3", "--type", "dword"});
    {
        ExampleProduct product;
        EXPECT_EQ(OrielText({"reg", "query", serviceKey, "ImagePath"}),
                  "\"" + WindowsPath(ProgramPath(kServiceProgram)) + "\"");
        const Json status = OrielJson({"status"});
        const Json expected = {{"service", "running"},
                               {"initialised", true},
                               {"directory", ProgramPath("")},
                               {"stateDirectory", std::getenv("ORIEL_STATE_DIR")},
                               {"runDirectory", std::getenv("ORIEL_RUNTIME_DIR")}};
        for (const auto& [name, value] : expected.items())
            EXPECT_EQ(status[name], value) << name;

        // A second one leaves the first alone.
        EXPECT_EQ(OrielJson({"up"}, 1)["error"]["what"], "the product is already up, in another process");

        // A service that was killed is started again, and the values that have a copy are back.
        OrielText({"set", kPrinter, "PageCount", "77"});
        product.KillService();
        EXPECT_EQ(ValueOf(kPrinter, "PageCount"), 77);

        product.Process().Interrupt();
        product.Events({"stopping", "stopped"});
        EXPECT_EQ(product.Process().Wait(), 0);
        EXPECT_NE(product.Process().Errors().find("starting it again"), std::string::npos);
    }
    {
        // One that was killed is followed by another, which takes over what runs and stops it.
        RunningProduct killed;
        const int service = ProcessOf(kServiceProgram);
        killed.Process().KillOnly();
        ASSERT_TRUE(WaitUntil([] { return OrielJson({"status"})["initialised"] == false; }));
        TestProcess next = TestProcess::Program(ProgramPath("oriel"), {"up", "--quiet"});
        ASSERT_TRUE(WaitUntil([] { return OrielJson({"status"})["initialised"] == true; }));
        EXPECT_EQ(ProcessOf(kServiceProgram), service);
        next.Interrupt();
        EXPECT_EQ(next.Wait(), 0);
        EXPECT_EQ(killed.Process().Wait(), 137);
    }
    EXPECT_EQ(OrielJson({"status"}, 3)["initialised"], false);
    EXPECT_EQ(ProcessOf(kServiceProgram), 0);

    // A service that ran before is left running.
    TestProcess service = TestProcess::Program(ProgramPath(kServiceProgram));
    ASSERT_TRUE(WaitUntil([] { return Oriel({"status"}).exitCode == 0; })); // it is, once the service runs
    {
        TestProcess quiet = TestProcess::Program(ProgramPath("oriel"), {"up", "--quiet"});
        EXPECT_TRUE(WaitUntil([] { return OrielJson({"status"})["initialised"] == true; }));
        quiet.Terminate();
        EXPECT_EQ(quiet.HearAll(), "");
        EXPECT_EQ(quiet.Wait(), 0);
        EXPECT_EQ(quiet.Errors(), "");
    }
    EXPECT_EQ(Oriel({"status"}).exitCode, 0);
    service.Terminate();
    EXPECT_EQ(service.Wait(), 0);
}

TEST(Up, RunsAPrinterSideForEachPrinterWithAScript) {
    const std::string script = FileOf("printer.script", "set PageCount 4711\n");
    const std::string printer = "Scripted \"one\" \xC3\xA9";
    OrielText({"printers", "add", printer, "--driver", "Any", "--port", "LPT1:", "--script", script});
    OrielText({"printers", "add", "Office", "--driver", "Any", "--script", script});
    RunningProduct product;
    product.Events({"printer-side-started", "printer-side-started"});
    ExpectTakesRequests(printer);
    ExpectTakesRequests("Office");

    KillProcess(ProcessOf("Scripted"));
    EXPECT_EQ(product.Event("printer-side-ended")["code"], 128 + 9);
    EXPECT_EQ(product.Event("printer-side-started")["printer"], printer);
    product.KillService(); // its databases with it
    ExpectTakesRequests(printer);
    ExpectTakesRequests("Office");
    EXPECT_EQ(ValueOf(printer, "PageCount"), 4711);

    // What has no script any more is told to end.
    OrielText({"reg", "delete", R"(HKLM\System\CurrentControlSet\Control\Print\Printers\Office)", "Oriel Script"});
    EXPECT_EQ(product.Event("printer-side-ended")["code"], 0);
    EXPECT_EQ(ValueOf("Office", "PrinterExtStatus"), 0);
    // What is added or removed later is found at once, and not when `up` looks for it every 2 s.
    for (const char* event : {"printer-side-started", "printer-side-ended", "printer-side-started",
                              "printer-side-ended", "printer-side-started"}) {
        const double began = NowMs();
        if (event == std::string("printer-side-started"))
            OrielText({"printers", "add", "Late", "--driver", "Any", "--script", script});
        else
            OrielText({"printers", "remove", "Late"});
        EXPECT_EQ(product.Event(event)["printer"], "Late");
        EXPECT_LT(NowMs() - began, 1000) << event;
    }
    ExpectTakesRequests("Late"); // one that is only starting does not hear of a termination

    // Printer sides have their printers open: a termination waits for them, and they end for it.
    OrielText({"terminate", printer});
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(product.Event("printer-side-ended")["pauseMs"], 0);
    EXPECT_EQ(ProcessOf(kPrinterSideProgram), 0);
    const Json job = OrielJson({"print", "Late", script});
    EXPECT_EQ(job["prints"], false);
    EXPECT_EQ(job["why"],
              "its printer side does not run: it was asked to end; it starts again when the printer is opened");
    for (const std::string& each : {std::string("Late"), printer}) {
        OrielText({"get", each, "PageCount"});
        EXPECT_EQ(product.Event("printer-side-started")["printer"], each);
        ExpectTakesRequests(each);
    }
    product.Process().Terminate();
    EXPECT_EQ(product.Process().Wait(), 0) << product.Process().Errors();
    EXPECT_EQ(ProcessOf(kPrinterSideProgram), 0) << "none is left";
}

namespace {

struct Stopped {
    explicit Stopped(const TestProcess& process) : m_process(static_cast<int>(process.Id())) {
        kill(m_process, SIGSTOP);
    }
    ~Stopped() { kill(m_process, SIGCONT); }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

private:
    const int m_process;
};

// The numbers of the memory of the process's events of that name.
std::set<std::string> EventsOf(int process, const std::string& name) {
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    std::set<std::string> found;
    std::string range, rights, offset, device, number, path;
    while (maps >> range >> rights >> offset >> device >> number && std::getline(maps, path))
        if (path.find("/memfd:" + name) != std::string::npos) found.insert(number);
    return found;
}

} // namespace

TEST(Up, RestartsTheServiceWhenTheWholeObjectServerIsKilled) {
    OrielText(
        {"printers", "add", "Office", "--driver", "Any", "--script", FileOf("office.script", "set PageCount 4711\n")});
    RunningProduct product;
    product.Event("printer-side-started");
    ExpectTakesRequests("Office");
    for (int round = 0; round < 2; ++round) {
        const int service = ProcessOf(kServiceProgram);
        EXPECT_TRUE(WaitUntil([] { // a worker that is still alive may have made another one
            for (const int process : ProcessesOf("oriel-objects"))
                KillProcess(process);
            return ProcessesOf("oriel-objects").empty();
        }));
        product.Events({"service-ended", "service-started"});
        EXPECT_NE(ProcessOf(kServiceProgram), service);
        ExpectTakesRequests("Office");
        // The start of the next service is told by an event of this one, which the printer side has to wait for.
        const std::set<std::string> started = EventsOf(ProcessOf(kServiceProgram), "TVORSDB:Started");
        EXPECT_EQ(started.size(), 1U);
        EXPECT_TRUE(WaitUntil([&] { return EventsOf(ProcessOf(kPrinterSideProgram), "TVORSDB:Started") == started; }));
    }
}

// Such a printer side is not told of the next service, and looks for it more often.
TEST(Up, APrinterSideThatBeganWhenAllNamesWereLostFindsTheNextService) {
    const std::string script = FileOf("office.script", "set PageCount 4711\n");
    OrielText({"printers", "add", "Office", "--driver", "Any", "--script", script});
    RunningProduct product;
    product.Event("printer-side-started");
    ExpectTakesRequests("Office");
    const Stopped up(product.Process()); // so that it mends nothing
    for (const char* program : {"oriel-objects", kPrinterSideProgram})
        EXPECT_TRUE(WaitUntil([&] {
            for (const int process : ProcessesOf(program))
                KillProcess(process);
            return ProcessesOf(program).empty();
        }));
    TestProcess side =
        TestProcess::Program(ProgramPath(kPrinterSideProgram), {"--printer", "Office", "--script", script});
    EXPECT_TRUE(WaitUntil([&] { return !EventsOf(static_cast<int>(side.Id()), "TVOR:").empty(); }));
    ExpectTakesRequests("Office");
    KillProcess(ProcessOf(kServiceProgram));
    TestProcess service = TestProcess::Program(ProgramPath(kServiceProgram), {});
    // Its first manager makes the printer's database.
    EXPECT_TRUE(WaitUntil([] { return Oriel({"get", "Office", "PageCount"}).exitCode == 0; }));
    const auto connected = [] {
        const std::set<std::string> started = EventsOf(ProcessOf(kServiceProgram), "TVORSDB:Started");
        return !started.empty() && EventsOf(ProcessOf(kPrinterSideProgram), "TVORSDB:Started") == started;
    };
    EXPECT_TRUE(WaitUntil(connected, 2500));
    side.Kill();
}

TEST(Up, MakesADemoPrinterOnceAndTellsItsSupervisor) {
    const std::string printer = "Demo printer";
    for (const int expected : {30, 4711}) {
        const std::string name = PrivateDirectory() + "/" + std::to_string(expected);
        NotifySocket supervisor(name);
        TestProcess up =
            TestProcess::Program(ProgramPath("oriel"), {"up", "--demo-printer", "--json"}, {{"NOTIFY_SOCKET", name}});
        std::string line;
        do
            line = up.Hear();
        while (!line.empty() && line.find("printer-side-started") == std::string::npos);
        // Nobody else has opened the printer, and on the first round the installation was not even registered.
        EXPECT_TRUE(WaitUntil([&] { return ValueOf(printer, "TonerLevel") == expected; }));
        up.Terminate();
        EXPECT_EQ(up.Wait(), 0);
        EXPECT_EQ(supervisor.Messages(), (Words{"STATUS=starting", "STATUS=up", "READY=1", "STOPPING=1"}));
        // What its user made of it stays.
        std::ofstream(std::string(std::getenv("ORIEL_STATE_DIR")) + "/demo_printer.script") << "set TonerLevel 4711\n";
    }
}

// The start-up process: what it makes, what it undoes, and that it keeps the service running.
#include "notify_socket.h"
#include "private_machine.h"
#include "product.h"

#include <gtest/gtest.h>

#include <fstream>

TEST(Up, MakesTheProductReadyKeepsItSoAndUndoesItOnInterrupt) {
    const std::string serviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\TVORSDB";
    // A service of another place is replaced.
    OrielText({"reg", "set", serviceKey, "ImagePath", "\\old\\TVSDBN.EXE"});
    OrielText({"reg", "set", serviceKey, "Type", "16", "--type", "dword"});
    OrielText({"reg", "set", serviceKey, "Start", "3", "--type", "dword"});
    AddExamplePrinter();
    {
        RunningProduct product;
        EXPECT_EQ(OrielText({"reg", "query", serviceKey, "ImagePath"}),
                  "\"" + WindowsPath(ProgramPath("TVSDBN.EXE")) + "\"");
        const Json status = OrielJson({"status"});
        EXPECT_EQ(status["installed"], true);
        EXPECT_EQ(status["service"], "running");
        EXPECT_EQ(status["initialised"], true);
        EXPECT_EQ(status["directory"], ProgramPath(""));
        EXPECT_EQ(status["windowsVersion"], "5.1.2600");
        EXPECT_EQ(status["codePage"], 1252);
        EXPECT_EQ(status["stateDirectory"], std::getenv("ORIEL_STATE_DIR"));
        EXPECT_EQ(status["runDirectory"], std::getenv("ORIEL_RUNTIME_DIR"));

        // A second one leaves the first alone.
        EXPECT_EQ(OrielJson({"up"}, 1)["error"]["what"], "the product is already up, in another process");

        // A service that was killed is started again, and the values that have a copy are back.
        OrielText({"set", "Front desk", "PageCount", "77"});
        const int first = ServiceProcess();
        ASSERT_NE(first, 0);
        KillProcess(first);
        product.Event("service-ended");
        product.Event("service-started");
        EXPECT_NE(ServiceProcess(), first);
        EXPECT_EQ(OrielJson({"get", "Front desk", "PageCount"})["variables"][0]["value"], 77);

        product.Interrupt();
        product.Event("stopping");
        product.Event("stopped");
        EXPECT_EQ(product.Wait(), 0);
        EXPECT_NE(product.Errors().find("starting it again"), std::string::npos) << product.Errors();
    }
    const Json status = OrielJson({"status"}, 3);
    EXPECT_EQ(status["service"], "stopped");
    EXPECT_EQ(status["initialised"], false);
    EXPECT_EQ(ServiceProcess(), 0);

    // A service that ran before is left running.
    TestProcess service = TestProcess::Program(ProgramPath("TVSDBN.EXE"));
    ASSERT_TRUE(WaitUntil([] { return Oriel({"status"}).exitCode == 0; })); // it is, once the service runs
    {
        RunningProduct again;
        EXPECT_EQ(OrielJson({"status"})["initialised"], true);
    }
    EXPECT_EQ(OrielJson({"status"})["service"], "running");
    service.Terminate();
    EXPECT_EQ(service.Wait(), 0);
}

TEST(Up, QuietSaysNothing) {
    TestProcess up = TestProcess::Program(ProgramPath("oriel"), {"up", "--quiet"});
    ASSERT_TRUE(WaitUntil([] { return Oriel({"status"}).output.find("initialised      yes") != std::string::npos; }));
    up.Terminate();
    EXPECT_EQ(up.HearAll(), "");
    EXPECT_EQ(up.Wait(), 0);
    EXPECT_EQ(up.Errors(), "");
}

TEST(Up, RunsAPrinterSideForEachPrinterWithAScript) {
    const std::string script = PrivateDirectory() + "/printer.script";
    std::ofstream(script) << "set PageCount 4711\n";
    OrielText({"printers", "add", "Plain", "--driver", "Any"});
    OrielText(
        {"printers", "add", "Scripted \"one\" \xC3\xA9", "--driver", "Any", "--port", "LPT1:", "--script", script});
    EXPECT_EQ(OrielJson({"printers", "add", "No", "--driver", "Any", "--script", "relative"}, 2)["error"]["exitCode"],
              2);
    EXPECT_EQ(OrielJson({"printers", "add", "No", "--driver", "Any", "--script", script + "x"}, 1)["error"]["exitCode"],
              1);
    const std::string printer = "Scripted \"one\" \xC3\xA9";
    const auto pageCount = [&] { return OrielJson({"get", printer, "PageCount"})["variables"][0]["value"]; };
    const auto takesRequests = [&] {
        return OrielJson({"get", printer, "PrinterExtStatus"})["variables"][0]["value"] == 1;
    };
    RunningProduct product;
    EXPECT_EQ(product.Event("printer-side-started")["printer"], printer);
    ASSERT_TRUE(WaitUntil(takesRequests));
    EXPECT_EQ(pageCount(), 4711);
    // A client kind that opens only what has been opened before.
    OrielText({"printers", "add", "Later", "--driver", "Any"});
    for (const char* other : {"Plain", "Later"})
        EXPECT_EQ(Oriel({"get", other, "PageCount", "--kind", "9"}).exitCode, 0) << other;
    EXPECT_EQ(OrielJson({"get", printer, "Port"})["variables"][0]["value"]["portName"], "LPT1:");

    KillProcess(ProcessOf("TVSPSD.EXE"));
    EXPECT_EQ(product.Event("printer-side-ended")["code"], 128 + 9);
    product.Event("printer-side-started");
    KillProcess(ServiceProcess()); // its databases with it
    product.Event("service-ended");
    product.Event("service-started");
    ASSERT_TRUE(WaitUntil(takesRequests));
    EXPECT_EQ(pageCount(), 4711);

    // What is added later is found.
    OrielText({"printers", "add", "Late", "--driver", "Any", "--script", script});
    EXPECT_EQ(product.Event("printer-side-started")["printer"], "Late");
    const auto lateTakesRequests = [] { return OrielText({"get", "Late", "PrinterExtStatus"}).starts_with("1 "); };
    ASSERT_TRUE(WaitUntil(lateTakesRequests)) << "one that is only starting does not hear of a termination";

    // Printer sides have their printers open: a termination waits for them, and they end for it.
    OrielText({"terminate", printer});
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(product.Event("printer-side-ended")["pauseMs"], 0);
    EXPECT_EQ(ProcessOf("TVSPSD.EXE"), 0);
    const Json job = OrielJson({"print", "Late", script});
    EXPECT_EQ(job["prints"], false);
    EXPECT_EQ(job["why"],
              "its printer side does not run: it was asked to end; it starts again when the printer is opened");
    // Each comes back when its printer is opened.
    OrielText({"get", "Late", "PageCount"});
    EXPECT_EQ(product.Event("printer-side-started")["printer"], "Late");
    ASSERT_TRUE(WaitUntil(lateTakesRequests));
    OrielText({"get", printer, "PageCount"});
    EXPECT_EQ(product.Event("printer-side-started")["printer"], printer);
    ASSERT_TRUE(WaitUntil(takesRequests));
    product.Terminate();
    EXPECT_EQ(product.Wait(), 0) << product.Errors();
    EXPECT_EQ(ProcessOf("TVSPSD.EXE"), 0) << "none is left";
    EXPECT_EQ(OrielJson({"print", "Plain", script})["why"], "the printer has no device");
}

TEST(Up, TellsAPrinterSideToEndAndAsksNoPrintServerWithoutReason) {
    const std::string script = PrivateDirectory() + "/printer.script";
    std::ofstream(script) << "set PageCount 1\non read * ignore\n";
    OrielText({"printers", "add", "Office", "--driver", "Any", "--script", script});
    const std::string path = PrivateDirectory() + "/print-server";
    const CountedSocket server(path);
    RunningProduct product({{"CUPS_SERVER", path}});
    product.Event("printer-side-started");
    ASSERT_TRUE(WaitUntil([] { return OrielText({"get", "Office", "PrinterExtStatus"}).starts_with("1 "); }));
    OrielText({"acl", "set", "Office", "D:(A;;LCSWRPWPSDRCWDWO;;;WD)"});
    TestProcess waits =
        TestProcess::Program(ProgramPath("oriel"), {"get", "Office", "PageCount", "--direct", "--json"});
    ASSERT_TRUE(WaitUntil([] { return OrielText({"get", "Office", "ReadRequest"}) == "PageCount"; }));

    const int connections = server.Connections();
    OrielText({"reg", "delete", R"(HKLM\System\CurrentControlSet\Control\Print\Printers\Office)", "Oriel Script"});
    EXPECT_EQ(product.Event("printer-side-ended")["code"], 0); // up has looked for changes
    EXPECT_EQ(server.Connections(), connections);
    EXPECT_EQ(Json::parse(waits.HearAll())["variables"][0]["error"]["code"], -50) << "nobody is left waiting";
    EXPECT_EQ(OrielText({"get", "Office", "PrinterExtStatus"}), "0");
}

TEST(Up, MakesADemoPrinterOnceAndTellsItsSupervisor) {
    const std::string script = std::string(std::getenv("ORIEL_STATE_DIR")) + "/demo_printer.script";
    for (const std::string expected : {"30", "4711"}) {
        const std::string name = PrivateDirectory() + "/" + expected;
        NotifySocket supervisor(name);
        TestProcess up =
            TestProcess::Program(ProgramPath("oriel"), {"up", "--demo-printer", "--json"}, {{"NOTIFY_SOCKET", name}});
        std::string line;
        do {
            line = up.Hear();
        } while (!line.empty() && line.find("printer-side-started") == std::string::npos);
        // Nobody else has opened the printer, and on the first round the installation was not even registered.
        EXPECT_TRUE(WaitUntil([&] { return OrielText({"get", "Demo printer", "TonerLevel"}).starts_with(expected); }));
        if (expected == "30") {
            ASSERT_TRUE(WaitUntil([] {
                return OrielText({"get", "Demo printer", "PrinterExtStatus"}).starts_with("1 ");
            }));
            EXPECT_TRUE(OrielText({"get", "Demo printer", "PageCount", "--direct"}).starts_with("150"));
        }
        up.Terminate();
        EXPECT_EQ(up.Wait(), 0);
        EXPECT_EQ(up.Errors(), "");
        EXPECT_EQ(supervisor.Messages(),
                  (std::vector<std::string>{"STATUS=starting", "STATUS=up", "READY=1", "STOPPING=1"}));
        // What its user made of it stays.
        std::ofstream(script) << "set TonerLevel 4711\n";
    }
    EXPECT_EQ(OrielJson({"printers"})["printers"].size(), 1U);
}

// A printer on the network, from the command that adds it to the words for what it says.
#include "network_printer.h"
#include "product.h"

#include <csignal>
#include <functional>

TEST(NetworkPrinter, IsTriedAddedAndToldInWords) {
    IppPrinter printer;
    const std::string nowhere = "ipp://localhost:" + std::to_string(FreePort()) + "/ipp/print";
    EXPECT_EQ(Oriel({"printers", "add", "Lab", "--device", nowhere}).exitCode, 2);
    EXPECT_EQ(Oriel({"printers", "add", "Lab"}).exitCode, 2) << "neither a driver nor a device";
    EXPECT_TRUE(OrielJson({"printers"})["printers"].empty()) << "nothing was added";

    RunningProduct product;
    const ProgramResult added = Oriel({"printers", "add", "Lab", "--device", printer.Uri()});
    EXPECT_EQ(added.exitCode, 0) << added.errors;
    EXPECT_NE(added.output.find("model: Laser 7\n"), std::string::npos) << added.output;
    ExpectTakesRequests("Lab");
    EXPECT_EQ(ValueOf("Lab", "PrinterModel"), "Laser 7");
    const Json ready = VariableOf("Lab", "PrinterStatus");
    EXPECT_EQ(ready["meaning"], "ready");
    EXPECT_EQ(ready["from"], "device");
    EXPECT_EQ(ready["stale"], false);
    EXPECT_LT(ready["age_ms"].get<int>(), 30000);
    EXPECT_EQ(OrielJson({"print", "Lab", FileOf("page", "text")})["why"],
              "a printer on the network gets its jobs from a print server");

    printer.Print("STATE: +media-jam-error\nwait here\n");
    OrielText({"get", "Lab", "PrinterStatus", "--kind", "4"}); // asks for polling
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Lab", "ErrPaperJam")["meaning"] == "paper jam"; }));
    // It is polled for as long as a manager of that kind is open.
    EXPECT_TRUE(WaitUntil([] { return ValueOf("Lab", "CompulsivePolling") == 0; }));
    {
        TestProcess polling = TestProcess::Program(ProgramPath("oriel"), {"watch", "Lab", "PageCount", "--kind", "4"});
        EXPECT_TRUE(WaitUntil([] { return ValueOf("Lab", "CompulsivePolling") == 1; }));
        PauseMs(5000); // a look is every 4 s
        EXPECT_EQ(ValueOf("Lab", "CompulsivePolling"), 1);
    }
    EXPECT_TRUE(WaitUntil([] { return ValueOf("Lab", "CompulsivePolling") == 0; }));
    EXPECT_EQ(VariableOf("Lab", "ErrPaperJam")["severity"], "error");
    EXPECT_EQ(VariableOf("Lab", "PrinterStatus2")["bits"], Json({"paper jam"}));
    EXPECT_NE(
        OrielText({"get", "Lab", "ErrPaperJam", "PageCount"}).find("ErrPaperJam: 2; paper jam, from the device, "),
        std::string::npos);
    EXPECT_EQ(OrielText({"get", "Lab", "ErrPaperJam"}), "2") << "bare for scripts";
    const Json supplies = ValueOf("Lab", "DeviceSupplies");
    EXPECT_EQ(OrielJson({"printers"})["printers"][0]["supplies"], supplies);
    const std::string names = printer.Attribute("printer-supply-description");
    ASSERT_FALSE(supplies.empty());
    for (const Json& supply : supplies)
        EXPECT_NE(names.find(supply["name"]), std::string::npos) << supply << names;
    EXPECT_NE(OrielText({"vars", "Lab", "Device*"}).find("DeviceSupplies"), std::string::npos);

    // It dies: what was read is stale, and the state says why.
    printer.Process().Kill();
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Lab", "ErrPaperJam")["stale"] == true; }));
    EXPECT_EQ(VariableOf("Lab", "PrinterStatus")["meaning"], "does not answer");
    const Json state = OrielJson({"printers"})["printers"][0]["deviceState"];
    EXPECT_EQ(state["answers"], false);
    EXPECT_NE(state["trouble"].get<std::string>().find("no connection to localhost"), std::string::npos) << state;
    printer.Restart("keys");
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Lab", "ErrPaperJam")["stale"] == false; }, 20000));
    EXPECT_EQ(ValueOf("Lab", "ErrPaperJam"), 0);
}

TEST(NetworkPrinter, NobodyWhoLooksSeesOldValuesAsFresh) {
    IppPrinter printer;
    const RunningProduct product;
    EXPECT_EQ(Oriel({"printers", "add", "Lab", "--device", printer.Uri()}).exitCode, 0);
    ExpectTakesRequests("Lab");
    const std::pair<const char*, std::function<bool()>> looks[] = {
        {"get", [] { return VariableOf("Lab", "ErrPaperJam")["stale"] == true; }},
        {"vars",
         [] {
             return OrielJson({"vars", "Lab", "PageCount"})["variables"][0]["stale"] == true;
         }},
        {"get of its own", [] { return ValueOf("Lab", "DeviceState")["stale"] == true; }},
        {"printers", [] { return OrielJson({"printers"})["printers"][0]["deviceState"]["stale"] == true; }},
        {"doctor", [] {
             return Oriel({"doctor", "Lab"}).exitCode == 5;
         }}};
    for (const auto& [name, isStale] : looks) {
        EXPECT_FALSE(isStale()) << name;
        PauseMs(2100); // what was answered before is too old to be shown as it is
        printer.Process().Stop();
        EXPECT_TRUE(isStale()) << name << ", at the first look";
        printer.Process().Continue();
    }
    // Nor when its printer side stands still.
    EXPECT_FALSE(looks[0].second());
    PauseMs(2100);
    const int side = ProcessOf(kPrinterSideProgram);
    kill(side, SIGSTOP);
    EXPECT_NE(OrielText({"printers"}).find("its printer side does not ask it"), std::string::npos);
    kill(side, SIGCONT);
    EXPECT_FALSE(looks[0].second());
}

TEST(NetworkPrinter, WatchersAreToldWhenItsValuesAreStaleAndFreshAgain) {
    IppPrinter printer;
    RunningProduct product;
    EXPECT_EQ(Oriel({"printers", "add", "Lab", "--device", printer.Uri()}).exitCode, 0);
    ExpectTakesRequests("Lab");
    TestProcess watch = TestProcess::Program(ProgramPath("oriel"), {"watch", "Lab", "ErrPaperJam", "--json"});
    const auto told = [&](const char* event) {
        Json line;
        do
            line = Json::parse(watch.Hear(), nullptr, false);
        while (line.is_object() && line["event"] == "change");
        EXPECT_EQ(line.value("event", ""), event) << line;
        return line;
    };
    told("start");
    // Nobody but the service can tell of a printer side that is killed.
    KillProcess(ProcessOf(kPrinterSideProgram));
    const auto killed = std::chrono::steady_clock::now();
    EXPECT_TRUE(WaitUntil([] { return VariableOf("Lab", "ErrPaperJam")["stale"] == true; }, 2000));
    const std::string why = told("stale")["why"];
    // The next one may have begun when the watcher reads.
    EXPECT_TRUE(why == "does not answer: the printer side has ended" ||
                why == "does not answer: the printer has not answered yet")
        << why;
    EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(2));
    told("fresh"); // the next one
    EXPECT_EQ(VariableOf("Lab", "ErrPaperJam")["stale"], false);
    printer.Process().Kill();
    const auto died = std::chrono::steady_clock::now();
    EXPECT_NE(told("stale")["why"].get<std::string>().find("no connection to localhost"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - died, std::chrono::seconds(2));
    printer.Restart("keys");
    told("fresh");
}

TEST(NetworkPrinter, OneProcessServesManyAndNoneDisturbsAnother) {
    IppPrinter printer;
    FakePrinter hung;
    hung.Answer([](const std::string&) { return FakeAnswer{.never = true}; });
    const auto setDevice = [](const std::string& name, const std::string& device) {
        OrielText(
            {"reg", "set", R"(HKLM\System\CurrentControlSet\Control\Print\Printers\)" + name, "Oriel Device", device});
    };
    RunningProduct product;
    for (const char* name : {"Lab", "Attic", "Hung"}) {
        OrielText({"printers", "add", name, "--driver", "Any"});
        setDevice(name, name == std::string("Hung") ? hung.Uri() : printer.Uri());
        EXPECT_EQ(product.Event("printer-side-started")["printer"], name);
    }
    const auto processes = [] { return ProcessesOf(kPrinterSideProgram); };
    const std::vector<int> one = processes();
    EXPECT_EQ(one.size(), 1U);
    ExpectTakesRequests("Lab");
    ExpectTakesRequests("Attic");
    OrielText({"acl", "set", "Attic", "D:(A;;LCSWRPWPSDRCWDWO;;;WD)"}); // for direct requests
    const int connections = hung.Connections();
    EXPECT_TRUE(WaitUntil([&] { return hung.Connections() > connections; }, 60000)); // each question makes one
    const auto asked = std::chrono::steady_clock::now();
    OrielText({"get", "Attic", "PageCount", "--direct"});
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(3)) << "a question that hangs takes 5 s";

    // Another address, a printer that goes, another service: the others go on.
    setDevice("Hung", printer.Uri());
    const Json left = product.Event("printer-side-ended");
    EXPECT_EQ(left["printer"], "Hung");
    EXPECT_EQ(left["code"], 0);
    EXPECT_EQ(product.Event("printer-side-started")["printer"], "Hung");
    ExpectTakesRequests("Hung");
    OrielText({"printers", "remove", "Attic"});
    EXPECT_EQ(product.Event("printer-side-ended")["printer"], "Attic");
    product.KillService();
    ExpectTakesRequests("Lab");
    ExpectTakesRequests("Hung");
    EXPECT_EQ(processes(), one);

    // Each rests after a termination until its own printer is opened.
    OrielText({"terminate", "Lab"});
    EXPECT_EQ(product.Events({"printer-side-ended", "printer-side-ended"})["pauseMs"], 0);
    EXPECT_TRUE(WaitUntil([&] { return processes().empty(); }));
    for (const char* name : {"Hung", "Lab"}) {
        OrielText({"get", name, "PageCount"});
        EXPECT_EQ(product.Event("printer-side-started")["printer"], name);
        ExpectTakesRequests(name);
    }

    // One that crashes again and again would keep the others down.
    const Words both = {"printer-side-ended", "printer-side-ended", "printer-side-started", "printer-side-started"};
    for (const size_t count : {1U, 2U}) {
        KillProcess(ProcessOf(kPrinterSideProgram));
        product.Events(both);
        ExpectTakesRequests("Lab");
        ExpectTakesRequests("Hung");
        ASSERT_EQ(processes().size(), count);
    }
    KillProcess(ProcessOf("Lab"));
    EXPECT_EQ(product.Event("printer-side-ended")["printer"], "Lab");
    EXPECT_EQ(product.Event("printer-side-started")["printer"], "Lab");
}

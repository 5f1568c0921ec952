// Jobs, the port and the name of a printer from the command line.
#include "product.h"

namespace {

Json Jobs(const std::string& printer = kPrinter) {
    return OrielJson({"jobs", printer});
}

std::string Paused(const Json& jobs) {
    std::string paused;
    for (const Json& job : jobs["spooler"])
        paused += job["paused"].get<bool>() ? "1" : "0";
    return paused;
}

} // namespace

TEST(Jobs, AreTakenAndPrintedByThePrinterSide) {
    const std::string printer = "Laser";
    const std::string script = FileOf("laser.script", "set PageCount 1\njobs hold\n");
    OrielText({"printers", "add", printer, "--driver", "Any", "--script", script});
    RunningProduct product;
    product.Event("printer-side-started");
    const auto value = [&](const char* variable) { return ValueOf(printer, variable); };
    const auto comes = [](const auto& condition) { EXPECT_TRUE(WaitUntil(condition, 30000)); };
    const auto killPrinterSide = [&] {
        KillProcess(ProcessOf(kPrinterSideProgram));
        product.Events({"printer-side-ended", "printer-side-started"});
    };
    comes([&] { return value("PageCount") == 1; });

    // Three documents of 2, 3 and 1 pages, and one that is paused. The printer is held up: none is sent.
    EXPECT_EQ(OrielJson({"print", printer, FileOf("held", "x"), "--held"})["prints"], true);
    OrielText({"print", printer, FileOf("text", std::string(67, '\n'))});
    OrielText({"print", printer, FileOf("doc.pdf", "%PDF-1.4 /Type /Pages /Type /Page /Type/Page/Type /Page")});
    OrielText({"print", printer, FileOf("feed", "one page\f")});
    comes([&] { return Jobs(printer)["spoolerQueue"].size() == 4; });

    // It is no more; the paused job is passed by the others.
    FileOf("laser.script", "set PageCount 100\njobs 40ms\n"); // read by the next printer side
    killPrinterSide();
    comes([&] { return value("PageCount") == 106 && Jobs(printer)["spooler"].size() == 1; });
    const Json jobs = Jobs(printer);
    EXPECT_EQ(jobs["spoolerQueue"][0]["jobName"], "held") << jobs;
    EXPECT_EQ(jobs["printing"], 0);

    // One whose printer side dies is printed from its beginning by the next one; cancelled, it comes out no further.
    const std::string book = OrielText({"print", printer, FileOf("book", std::string(1000, '\f'))});
    comes([&] { return value("PageCount") > 108; });
    EXPECT_EQ(value("PrintingJobInfo")["jobName"], "book");
    EXPECT_EQ(value("JobStatus"), 5);
    EXPECT_EQ(value("PrintingMyJob"), 1);
    product.KillService(); // the new one is told of it anew
    comes([&] { return value("PrintingMyJob") == 1 && value("PrintingJobInfo")["progress"] > 3; });
    killPrinterSide();
    comes([&] { return value("PageCount") < 108; }); // it counts from 100 again
    comes([&] { return value("PageCount") > 108; });
    EXPECT_EQ(value("PrintingMyJob"), 1);
    OrielText({"cancel", printer, book});
    comes([&] { return Jobs(printer)["printerQueue"] == Json::array(); });
    EXPECT_EQ(value("PrintingJobInfo")["jobId"], 0);
    EXPECT_LT(value("PageCount"), 1000);
}

TEST(Jobs, ArePrintedPausedResumedAndCancelled) {
    const ExampleProduct product;
    const std::string file = FileOf("letter.txt", "Dear Anna");
    const std::string first = OrielText({"print", kPrinter, file});
    const Json held = OrielJson({"print", kPrinter, file, "--title", "J\u00FCrgens Brief", "--held"});
    EXPECT_EQ(held["bytes"], 9);
    const auto second = held["job"].get<uint32_t>();
    Json jobs = Jobs();
    ASSERT_EQ(jobs["spooler"].size(), 2u) << jobs;
    EXPECT_EQ(jobs["spooler"][0]["title"], "letter.txt");
    EXPECT_EQ(Paused(jobs), "01");
    EXPECT_NE(OrielText({"jobs", kPrinter}).find("J\u00FCrgens Brief"), std::string::npos);

    // pause and resume are for the job that is being sent.
    EXPECT_NE(Oriel({"resume", kPrinter}).errors.find("no job is being sent"), std::string::npos);
    OrielText({"set", kPrinter, "SendingJobInfo", "jobName=Brief", "ownerName=ANNA", "jobId=" + first});
    EXPECT_EQ(OrielJson({"pause", kPrinter})["job"], std::stoi(first));
    EXPECT_EQ(Paused(Jobs()), "11");
    OrielText({"resume", kPrinter});
    EXPECT_EQ(Paused(Jobs()), "01");
    EXPECT_EQ(OrielJson({"jobs", kPrinter, "--user", "anna"})["printingMyJob"], 1);

    EXPECT_EQ(OrielJson({"cancel", kPrinter, std::to_string(second)})["cancelled"], second);
    EXPECT_EQ(OrielJson({"cancel", kPrinter, std::to_string(second)}, 1)["error"]["code"], -50);
    OrielText({"cancel", kPrinter, first});
    EXPECT_EQ(Jobs()["spooler"], Json::array());
    EXPECT_EQ(OrielJson({"pause", kPrinter}, 1)["error"]["what"], "cannot pause \"Front desk\"") << "the job has gone";
    EXPECT_EQ(Oriel({"print", kPrinter, file + ".missing"}).exitCode, 1);
}

TEST(Names, RenamedPrintersKeepWhatTheyHave) {
    UseSetting("ORIEL_ANSI_CODE_PAGE", "932");
    const ExampleProduct product;
    const std::string name = "\u8868 1"; // its first character has a backslash for its second byte
    OrielText({"set", kPrinter, "TonerLevel", "42"});
    OrielText({"set", kPrinter, "PrinterLocation", "\u4E8C\u968E \u8868"});
    const std::string job = OrielText({"print", kPrinter, SourcePath("README.md")});
    EXPECT_NE(Oriel({"rename", kPrinter, name}).errors.find("it has jobs"), std::string::npos);
    OrielText({"cancel", kPrinter, job});
    OrielText({"printers", "add", "Other", "--driver", "Example Laser"});
    EXPECT_EQ(OrielJson({"rename", kPrinter, "other"}, 1)["error"]["code"], 1802);
    for (const Words& refused : {Words{"rename", kPrinter, "\u00E9"}, {"set", kPrinter, "PrinterLocation", "\u00FC"}})
        EXPECT_NE(OrielJson(refused, 2).dump().find("code page 932"), std::string::npos) << "no such letter there";
    OrielText({"rename", kPrinter, name});
    EXPECT_EQ(ValueOf(name, "PrinterName"), name);
    EXPECT_EQ(ValueOf(name, "TonerLevel"), 42);
    EXPECT_EQ(VariableOf(name, "PrinterLocation")["hex"], "93 f1 8a 4b 20 95 5c 00");
    EXPECT_NE(Oriel({"get", kPrinter, "TonerLevel"}).exitCode, 0);
    EXPECT_EQ(OrielJson({"printers"})["printers"].size(), 2u);

    EXPECT_EQ(OrielJson({"port", name, "1", "LPT1:", "\u8868"})["port"],
              Json({{"portKind", 1}, {"portName", "LPT1:"}, {"portDetail", "\u8868"}}));
    EXPECT_EQ(Oriel({"port", name, "1", std::string(128, 'x')}).exitCode, 2);
}

// Jobs, the port and the name of a printer from the command line.
#include "private_machine.h"
#include "product.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>

namespace {

const std::string kPrinter = "Front desk";

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
    const auto file = [](const std::string& name, const std::string& text) {
        const std::string path = PrivateDirectory() + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    };
    const std::string script = file("laser.script", "set PageCount 1\njobs hold\n");
    OrielText({"printers", "add", printer, "--driver", "Any", "--script", script});
    RunningProduct product;
    product.Event("printer-side-started");
    const auto value = [&](const char* variable) {
        return OrielJson({"get", printer, variable})["variables"][0]["value"];
    };
    const auto killPrinterSide = [&] {
        KillProcess(ProcessOf("TVSPSD.EXE"));
        product.Event("printer-side-ended");
        product.Event("printer-side-started");
    };
    ASSERT_TRUE(WaitUntil([&] { return value("PageCount") == 1; }));

    // Three documents of 2, 3 and 1 pages, and one that is paused. The printer is held up: none is sent.
    EXPECT_EQ(OrielJson({"print", printer, file("held", "x"), "--held"})["prints"], true);
    OrielText({"print", printer, file("text", std::string(67, '\n'))});
    OrielText({"print", printer, file("doc.pdf", "%PDF-1.4 /Type /Pages /Type /Page /Type/Page/Type /Page")});
    OrielText({"print", printer, file("feed", "one page\f")});
    ASSERT_TRUE(WaitUntil([&] { return Jobs(printer)["spoolerQueue"].size() == 4; }));
    EXPECT_EQ(Jobs(printer)["sending"], 0);

    // It is no more; the paused job is passed by the others.
    TestProcess watch = TestProcess::Program(ProgramPath("oriel"), {"watch", printer, "PrintingJobInfo"});
    ASSERT_NE(watch.Hear(), "");
    file("laser.script", "set PageCount 100\njobs 40ms\n"); // read by the next printer side
    killPrinterSide();
    ASSERT_TRUE(WaitUntil([&] { return value("PageCount") == 106; }, 30000));
    ASSERT_TRUE(WaitUntil([&] { return Jobs(printer)["spooler"].size() == 1; }));
    const Json jobs = Jobs(printer);
    EXPECT_EQ(jobs["spoolerQueue"][0]["jobName"], "held") << jobs;
    EXPECT_EQ(jobs["printerQueue"], Json::array());
    EXPECT_EQ(jobs["sending"], 0);
    EXPECT_EQ(jobs["printing"], 0);
    EXPECT_EQ(value("JobStatus"), 0);
    watch.Kill();
    const std::string reports = watch.HearAll();
    EXPECT_NE(reports.find("doc.pdf"), std::string::npos) << reports;

    // One whose printer side dies is printed from its beginning by the next one; cancelled, it comes out no further.
    const std::string book = OrielText({"print", printer, file("book", std::string(1000, '\f'))});
    ASSERT_TRUE(WaitUntil([&] { return value("PageCount") > 108; }));
    EXPECT_EQ(value("PrintingJobInfo")["jobName"], "book");
    EXPECT_EQ(value("PrintingJobInfo")["ownerName"], jobs["spooler"][0]["owner"]);
    EXPECT_EQ(value("JobStatus"), 5);
    EXPECT_EQ(value("PrintingMyJob"), 1);
    // A new service is told of it anew.
    KillProcess(ServiceProcess());
    product.Event("service-ended");
    product.Event("service-started");
    ASSERT_TRUE(WaitUntil([&] { return value("PrintingMyJob") == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return value("PrintingJobInfo")["progress"] > 3; }));
    EXPECT_EQ(value("PrintingJobInfo")["jobName"], "book");
    killPrinterSide();
    ASSERT_TRUE(WaitUntil([&] { return value("PageCount") < 108; })) << "it counts from 100 again";
    ASSERT_TRUE(WaitUntil([&] { return value("PageCount") > 108; }, 30000));
    EXPECT_EQ(value("PrintingMyJob"), 1);
    OrielText({"cancel", printer, book});
    ASSERT_TRUE(WaitUntil([&] { return Jobs(printer)["printerQueue"] == Json::array(); }));
    EXPECT_EQ(value("PrintingJobInfo")["jobId"], 0);
    EXPECT_LT(value("PageCount"), 1000);
}

TEST(Jobs, ArePrintedPausedResumedAndCancelled) {
    AddExamplePrinter();
    RunningProduct product;
    EXPECT_EQ(OrielText({"jobs", kPrinter}), "no jobs");
    const std::string file = PrivateDirectory() + "/letter.txt";
    std::ofstream(file) << "Dear Anna";
    const std::string first = OrielText({"print", kPrinter, file});
    const Json held = OrielJson({"print", kPrinter, file, "--title", "J\u00FCrgens Brief", "--held"});
    EXPECT_EQ(held["bytes"], 9);
    const auto second = held["job"].get<uint32_t>();
    Json jobs = Jobs();
    ASSERT_EQ(jobs["spooler"].size(), 2u) << jobs;
    EXPECT_EQ(jobs["spooler"][0]["title"], "letter.txt");
    EXPECT_EQ(jobs["spooler"][1]["title"], "J\u00FCrgens Brief");
    EXPECT_EQ(Paused(jobs), "01");
    EXPECT_NE(OrielText({"jobs", kPrinter}).find("J\u00FCrgens Brief"), std::string::npos);

    // pause and resume are for the job that is being sent.
    EXPECT_NE(Oriel({"resume", kPrinter}).errors.find("no job is being sent"), std::string::npos);
    OrielText({"set", kPrinter, "SendingJobInfo", "jobName=Brief", "ownerName=ANNA", "jobId=" + first});
    EXPECT_EQ(OrielJson({"pause", kPrinter})["job"], std::stoi(first));
    EXPECT_EQ(Paused(Jobs()), "11");
    OrielText({"resume", kPrinter});
    jobs = OrielJson({"jobs", kPrinter, "--user", "anna"});
    EXPECT_EQ(Paused(jobs), "01");
    EXPECT_EQ(jobs["printerQueue"],
              Json::array({{{"jobName", "Brief"}, {"ownerName", "ANNA"}, {"jobId", std::stoi(first)}}}));
    EXPECT_EQ(jobs["printingMyJob"], 1);
    EXPECT_EQ(jobs["spoolingMyJob"], 0);
    EXPECT_EQ(Jobs()["printingMyJob"], 0);

    EXPECT_EQ(OrielJson({"cancel", kPrinter, std::to_string(second)})["cancelled"], second);
    EXPECT_EQ(OrielJson({"cancel", kPrinter, std::to_string(second)}, 1)["error"]["code"], -50);
    OrielText({"cancel", kPrinter, first});
    EXPECT_EQ(Jobs()["spooler"], Json::array());
    EXPECT_EQ(OrielJson({"pause", kPrinter}, 1)["error"]["what"], "cannot pause \"Front desk\"") << "the job has gone";
    EXPECT_EQ(Oriel({"print", kPrinter, file + ".missing"}).exitCode, 1);
    EXPECT_EQ(Oriel({"print", "Nobody's", file}).exitCode, 1);
    EXPECT_EQ(Oriel({"cancel", kPrinter, "many"}).exitCode, 2);
}

TEST(Names, RenamedPrintersKeepWhatTheyHave) {
    const Environment japanese = {{"ORIEL_ANSI_CODE_PAGE", "932"}};
    AddExamplePrinter(japanese);
    RunningProduct product(japanese);
    const std::string name = "\u8868 1"; // its first character has a backslash for its second byte
    const auto get = [&](const std::string& printer, const std::string& variable) {
        return OrielText({"get", printer, variable}, japanese);
    };
    OrielText({"set", kPrinter, "TonerLevel", "42"}, japanese);
    OrielText({"print", kPrinter, SourcePath("README.md")}, japanese);
    EXPECT_NE(Oriel({"rename", kPrinter, name}, japanese).errors.find("it has jobs"), std::string::npos);
    OrielText({"cancel", kPrinter,
               std::to_string(OrielJson({"jobs", kPrinter}, 0, japanese)["spooler"][0]["job"].get<int>())},
              japanese);
    OrielText({"printers", "add", "Other", "--driver", "Example Laser"}, japanese);
    EXPECT_EQ(OrielJson({"rename", kPrinter, "other"}, 1, japanese)["error"]["code"], 1802);
    EXPECT_EQ(Oriel({"rename", kPrinter, "\u00E9"}, japanese).exitCode, 2) << "the code page has no such letter";
    OrielText({"printers", "add", "\\\\server\\lp", "--driver", "Example Laser"}, japanese);
    EXPECT_EQ(OrielJson({"rename", "\\\\server\\lp", "lp"}, 1, japanese)["error"]["code"], 50) << "another machine's";
    OrielText({"rename", kPrinter, name}, japanese);
    EXPECT_EQ(get(name, "PrinterName"), name);
    EXPECT_EQ(get(name, "TonerLevel"), "42 (0x2A)");
    EXPECT_NE(Oriel({"get", kPrinter, "TonerLevel"}, japanese).exitCode, 0);
    const Json printers = OrielJson({"printers"}, 0, japanese)["printers"];
    const auto renamed =
        std::find_if(printers.begin(), printers.end(), [&](const Json& p) { return p["name"] == name; });
    ASSERT_NE(renamed, printers.end()) << printers;
    EXPECT_EQ((*renamed)["driver"], "Example Laser");
    EXPECT_TRUE((*renamed)["inSpooler"].get<bool>() && (*renamed)["inRegistry"].get<bool>());
    EXPECT_EQ(printers.size(), 3u);

    EXPECT_EQ(OrielJson({"port", name, "1", "LPT1:", "\u8868"}, 0, japanese)["port"],
              Json({{"portKind", 1}, {"portName", "LPT1:"}, {"portDetail", "\u8868"}}));
    EXPECT_NE(OrielText({"port", name}, japanese).find("LPT1:"), std::string::npos);
    EXPECT_EQ(Oriel({"port", name, "many", "LPT1:"}, japanese).exitCode, 2);
    EXPECT_EQ(Oriel({"port", name, "1"}, japanese).exitCode, 2);
    EXPECT_EQ(Oriel({"port", name, "1", std::string(128, 'x')}, japanese).exitCode, 2);
}

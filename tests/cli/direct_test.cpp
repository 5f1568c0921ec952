// Commands that ask the printer itself: what they answer while no printer side serves it, and what a real one answers.
#include "private_machine.h"
#include "product.h"

#include <fstream>
#include <gtest/gtest.h>

namespace {

const std::string kPrinter = "Front desk";

} // namespace

TEST(DirectCommands, WithoutAPrinterSideTheyAreRefused) {
    AddExamplePrinter();
    RunningProduct product;
    OrielText({"set", kPrinter, "PrinterExtStatus", "0"});
    struct Row {
        std::vector<std::string> command;
        int exitCode;
        int code;
    };
    for (const Row& row : {
             Row{{"get", kPrinter, "PageCount", "--direct"}, 1, -50},
             Row{{"set", kPrinter, "RefreshStatus", "all", "--direct"}, 1, -50},
             Row{{"set", kPrinter, "RefreshStatus", "all", "--async"}, 1, -50},
             Row{{"set", kPrinter, "RefreshStatus", "all", "--async", "--wait"}, 1, -50},
             Row{{"set", kPrinter, "TonerLevel", "5", "--direct"}, 1, -19},
             Row{{"set", kPrinter, "TonerLevel", "5", "--async"}, 1, -19},
             Row{{"set", kPrinter, "RefreshStatus", "all", "--wait"}, 2, 0},
             Row{{"set", kPrinter, "RefreshStatus", "all", "--async", "--direct"}, 2, 0},
             Row{{"result", kPrinter, "5"}, 1, -19},
             Row{{"result", kPrinter, "many"}, 2, 0},
         }) {
        SCOPED_TRACE(row.command[0] + " " + row.command.back());
        const Json document = OrielJson(row.command, row.exitCode);
        const Json& error = document.contains("variables") ? document["variables"][0]["error"] : document["error"];
        EXPECT_EQ(error["code"], row.code) << document;
    }
    EXPECT_EQ(OrielText({"get", kPrinter, "TonerLevel", "--direct"}), "100 (0x64)") << "a stored one";
}

TEST(DirectCommands, AreAnsweredByThePrinterSide) {
    AddExamplePrinter();
    // A number that the printer can be asked for, and told; and a queue.
    const std::string model = PrivateDirectory() + "/copies.reg";
    std::ofstream(model) << "REGEDIT4\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Tavik\\Oriel\\Printers\\Example Laser\\Status "
                            "Variables]\n\"Copies\"=hex:04,00,00,00,04,02,03,00,01,00,00,00\n"
                            "\"Events\"=hex:04,00,00,00,80,00,01,00,00,00,00,00\n";
    OrielText({"reg", "import", model});
    const std::string script = PrivateDirectory() + "/printer.script";
    std::ofstream(script) << "set Copies 1\nset PageCount 3\n"
                             "append Events 6\nappend Events 7\nappend Events 8:8\nqueue Events 4 2\n"
                             "on read PageCount set PageCount 4711\n"
                             "on write Copies delay 100ms\n"
                             "on refresh fail -77\n";
    const std::string printer = "Back office";
    OrielText({"printers", "add", printer, "--driver", "Example Laser", "--port", "LPT1:", "--script", script});
    RunningProduct product;
    product.Event("printer-side-started");
    ASSERT_TRUE(WaitUntil([&] { return OrielText({"get", printer, "PrinterExtStatus"}).starts_with("1 "); }));
    EXPECT_EQ(product.Errors(), "");

    // The queue holds the two newest; each is there once, and what no one has put in is not.
    const auto event = [&] { return OrielJson({"get", printer, "Events"})["variables"][0]["hex"]; };
    Json first;
    ASSERT_TRUE(WaitUntil([&] { return (first = event()) != ""; })); // they are put in once nobody holds the mutex
    EXPECT_EQ(first, "07 00 00 00");
    EXPECT_EQ(event(), "08 00 00 00");
    EXPECT_EQ(event(), "");

    EXPECT_EQ(OrielJson({"get", printer, "PageCount", "--direct"}, 4)["variables"][0]["error"]["code"], -256)
        << "nobody has a right yet";
    // Of several that fail the first one gives the exit code.
    EXPECT_EQ(OrielJson({"get", printer, "TonerLevel", "PageCount", "Nothing", "--direct"}, 4)["variables"].size(), 3u);
    EXPECT_EQ(OrielJson({"get", printer, "Nothing", "PageCount", "TonerLevel", "--direct"}, 1)["variables"].size(), 3u);
    OrielText({"acl", "set", printer, "D:(A;;LCSWRPWPSDRCWDWO;;;WD)"});
    EXPECT_EQ(OrielText({"get", printer, "PageCount"}), "3");
    EXPECT_EQ(OrielText({"get", printer, "PageCount", "--direct"}), "4711 (0x1267)");
    EXPECT_EQ(OrielText({"get", printer, "PageCount"}), "4711 (0x1267)") << "what was asked for is stored";

    OrielText({"set", printer, "Copies", "2", "--direct"});
    EXPECT_EQ(OrielText({"get", printer, "Copies", "--direct"}), "2");
    EXPECT_EQ(OrielJson({"set", printer, "Copies", "3", "--async", "--wait"})["variable"]["result"], 0);
    EXPECT_EQ(OrielText({"get", printer, "Copies", "--direct"}), "3");
    EXPECT_EQ(OrielJson({"set", printer, "RefreshStatus", "all", "--direct"}, 1)["error"]["code"], -77);

    // A result is given to whoever asks first.
    const std::string request = OrielText({"set", printer, "Copies", "4", "--async"});
    EXPECT_EQ(OrielText({"result", printer, request}), "0");
    EXPECT_EQ(OrielJson({"result", printer, request}, 1)["error"]["code"], -19);
    EXPECT_EQ(OrielText({"get", printer, "Copies", "--direct"}), "4");
}

// Commands that ask the printer itself, which a real printer side answers.
#include "product.h"

TEST(DirectCommands, AreAnsweredByThePrinterSide) {
    AddExamplePrinter();
    // A number that the printer can be asked for, and told; and a queue.
    const std::string variables = R"(HKLM\SOFTWARE\Tavik\Oriel\Printers\Example Laser\Status Variables)";
    OrielText({"reg", "set", variables, "Copies", "04000000 04020300 01000000", "--type", "binary"});
    OrielText({"reg", "set", variables, "Events", "04000000 80000100 00000000", "--type", "binary"});
    const std::string script = FileOf("printer.script", "set Copies 1\nset PageCount 3\n"
                                                        "append Events 6\nappend Events 7\nappend Events 8:8\n"
                                                        "queue Events 4 2\non read PageCount set PageCount 4711\n"
                                                        "on write Copies delay 100ms\non refresh fail -77\n");
    const std::string printer = "Back office";
    OrielText({"printers", "add", printer, "--driver", "Example Laser", "--port", "LPT1:", "--script", script});
    RunningProduct product;
    product.Event("printer-side-started");
    ExpectTakesRequests(printer);
    EXPECT_EQ(product.Process().Errors(), "");

    // The queue holds the two newest; each is there once, and what no one has put in is not.
    const auto event = [&] { return VariableOf(printer, "Events")["hex"]; };
    Json first;
    ASSERT_TRUE(WaitUntil([&] { return (first = event()) != ""; })); // they are put in once nobody holds the mutex
    EXPECT_EQ(first, "07 00 00 00");
    EXPECT_EQ(event(), "08 00 00 00");
    EXPECT_EQ(event(), "");

    EXPECT_EQ(OrielJson({"get", printer, "PageCount", "--direct"}, 4)["variables"][0]["error"]["code"], -256)
        << "nobody has a right yet";
    EXPECT_EQ(OrielJson({"get", printer, "Nothing", "PageCount", "--direct"}, 1)["variables"].size(), 2u)
        << "the first";
    OrielText({"acl", "set", printer, "D:(A;;LCSWRPWPSDRCWDWO;;;WD)"});
    EXPECT_EQ(OrielText({"get", printer, "PageCount", "--direct"}), "4711 (0x1267)");
    EXPECT_EQ(OrielText({"get", printer, "PageCount"}), "4711 (0x1267)") << "what was asked for is stored";

    OrielText({"set", printer, "Copies", "2", "--direct"});
    EXPECT_EQ(OrielText({"get", printer, "Copies", "--direct"}), "2");
    EXPECT_EQ(OrielJson({"set", printer, "Copies", "3", "--async", "--wait"})["variable"]["result"], 0);
    EXPECT_EQ(OrielJson({"set", printer, "RefreshStatus", "all", "--direct"}, 1)["error"]["code"], -77);

    // A result is given to whoever asks first.
    const std::string request = OrielText({"set", printer, "Copies", "4", "--async"});
    EXPECT_EQ(OrielText({"result", printer, request}), "0");
    EXPECT_EQ(OrielJson({"result", printer, request}, 1)["error"]["code"], -19);
    EXPECT_EQ(OrielText({"get", printer, "Copies", "--direct"}), "4");
}

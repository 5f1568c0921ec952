// Commands that ask the printer itself: what they answer while no printer side serves it, and their results.
#include "product.h"

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

// A plain C program calls every export of the library, against the service and a printer side.
#include "private_machine.h"
#include "product.h"

#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace {

// Those that the library is to export.
std::set<std::string> ExportNames() {
    std::ifstream list(SourcePath("tvsqdz/exports.def"));
    std::set<std::string> names;
    for (std::string line; std::getline(list, line);) {
        std::string name, ordinal;
        if (std::istringstream(line) >> name >> ordinal && ordinal.starts_with('@')) names.insert(name);
    }
    return names;
}

} // namespace

TEST(PlainC, CallsEveryExport) {
    AddExamplePrinter();
    const std::string variables = R"(HKLM\SOFTWARE\Tavik\Oriel\Printers\Example Laser\Status Variables)";
    OrielText({"reg", "set", variables, "Copies", "04000000 04020300 01000000", "--type", "binary"});
    const std::string script = PrivateDirectory() + "/printer.script";
    std::ofstream(script) << "set Copies 1\n";
    const std::string printer = "Back office";
    OrielText({"printers", "add", printer, "--driver", "Example Laser", "--script", script});
    RunningProduct product;
    product.Event("printer-side-started");
    ASSERT_TRUE(WaitUntil([&] { return OrielText({"get", printer, "PrinterExtStatus"}).starts_with("1 "); }, 30000));

    const ProgramResult result = RunProgram(ProgramPath("every_export"), {printer, "Copies"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    std::set<std::string> called;
    std::istringstream output(result.output);
    for (std::string name; output >> name;)
        EXPECT_TRUE(called.insert(name).second) << name;
    EXPECT_EQ(called, ExportNames());
    EXPECT_EQ(called.size(), 37u);
}

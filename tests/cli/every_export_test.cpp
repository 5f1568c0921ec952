// A plain C program calls every export of the library, against the service and a printer side.
#include "product.h"

#include <fstream>
#include <set>
#include <sstream>

TEST(PlainC, CallsEveryExport) {
    AddExamplePrinter();
    const std::string variables = R"(HKLM\SOFTWARE\Tavik\Oriel\Printers\Example Laser\Status Variables)";
    OrielText({"reg", "set", variables, "Copies", "04000000 04020300 01000000", "--type", "binary"});
    const std::string script = FileOf("printer.script", "set Copies 1\n");
    OrielText({"printers", "add", "Back office", "--driver", "Example Laser", "--script", script});
    RunningProduct product;
    product.Event("printer-side-started");
    ExpectTakesRequests("Back office");

    const ProgramResult result = RunProgram(ProgramPath("every_export"));
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    std::set<std::string> called, exported;
    std::istringstream output(result.output);
    for (std::string name; output >> name;)
        called.insert(name);
    std::ifstream list(SourcePath("tvsqdz/exports.def"));
    for (std::string line, name, ordinal; std::getline(list, line);)
        if (std::istringstream(line) >> name >> ordinal && ordinal.starts_with('@')) exported.insert(name);
    EXPECT_EQ(called, exported);
    EXPECT_EQ(called.size(), 37u);
}

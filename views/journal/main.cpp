#include "model/local.h"
#include "model/program.h"
#include <CLI/CLI.hpp>
using namespace views;
int main(int argc, char** argv) {
    return RunProgram(argc, argv, {"log", "Show changes", true}, [](CLI::App&) {}, [] {
        LocalPrinters source;
        EndOnInterrupt end(source);
        while (!end.Asked()) {
            for (const Change& c : source.Wait(std::chrono::hours(1))) {
                PrintJsonLine({{"kind", NameOf(c.kind)}, {"at", c.atMs}, {"printer", c.printer}, {"variable", c.variable}, {"before", c.before ? c.before->text : ""}, {"after", c.after ? c.after->text : ""},{"missed", c.missed}});
            }
        }
        return Exit::Done;
    });
}

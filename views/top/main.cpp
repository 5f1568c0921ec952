// oriel-top: the printers of this machine in a terminal. No state.
#include "top/top.h"

#include "model/local.h"
#include "model/program.h"

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
    views::TopOptions options;
    const views::Program program{"top", "Show the printers, their state, supplies and jobs, until q is pressed. In a "
                                        "pipe, or with --json, show them once."};
    const auto addOptions = [&](CLI::App& app) {
        app.add_option("FILTER", options.filter, "Show only printers that have this text in their name or state");
        app.add_flag("--once", options.once, "Show them once");
    };
    return views::RunProgram(argc, argv, program, addOptions, [&] {
        views::LocalPrinters source;
        return views::RunTop(source, options);
    });
}

// oriel-serve: the printers of this machine in a browser, and their metrics. No state.
#include "serve/serve.h"

#include "model/local.h"
#include "model/program.h"

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
    views::ServeOptions options{.isThisMachine = true};
    const views::Program program{"serve", "Serve a page that shows the printers, and their metrics, until Ctrl-C.",
                                 true};
    const auto addOptions = [&](CLI::App& app) {
        app.add_option("--port", options.port, "Port; 0 takes one that is free")->capture_default_str();
        app.add_option("--listen", options.host, "Address to listen on. Any but this machine's own needs a token")
            ->capture_default_str();
        app.add_option("--token-file", options.tokenFile,
                       "File with a token that readers must give, as /?token=TOKEN or Authorization: Bearer TOKEN");
    };
    return views::RunProgram(argc, argv, program, addOptions, [&] {
        views::LocalPrinters source;
        return views::RunServe(source, options);
    });
}

// oriel-fleet: the printers of all machines that tell a broker. No state.
#include "model/program.h"
#include "model/summary.h"
#include "mqtt/fleet.h"
#include "serve/serve.h"
#include "top/top.h"

#include "base/text.h"

#include <CLI/CLI.hpp>

namespace {

constexpr std::chrono::milliseconds kPatience{10000};

Exit RunList(views::FleetPrinters& source) {
    source.WaitForAll(kPatience);
    Json printers = Json::array();
    Table table{{{"MACHINE", "STATE", "PRINTER"}}};
    for (const auto& [key, printer] : source.Now()) {
        const views::Summary summary = views::SummaryOf(printer);
        printers.push_back(views::SummaryJson(printer, summary));
        table.rows.push_back(
            {printer.machine, printer.stale ? "stale: " + printer.trouble : summary.state, printer.name});
    }
    if (g_output.json)
        PrintJson({{"printers", printers}});
    else
        table.Print();
    return Exit::Done;
}

} // namespace

int main(int argc, char** argv) {
    views::BrokerOptions broker;
    views::TopOptions top;
    views::ServeOptions serve;
    bool showTop = false, runServe = false;
    const views::Program program{"fleet", "Show the printers of all machines that tell a broker (oriel bridge mqtt): "
                                          "once, or with 'top' and 'serve' live."};
    const auto addOptions = [&](CLI::App& app) {
        views::AddBrokerOptions(app, broker);
        CLI::App* topCommand = app.add_subcommand("top", "Show them in the terminal, as 'oriel top'");
        topCommand->add_option("FILTER", top.filter, "Show only printers that have this text in their name or state");
        topCommand->add_flag("--once", top.once, "Show them once");
        topCommand->callback([&] { showTop = true; });
        CLI::App* serveCommand = app.add_subcommand("serve", "Serve a page that shows them, as 'oriel serve'");
        serveCommand->add_option("--listen-port", serve.port, "Port; 0 takes one that is free")->capture_default_str();
        serveCommand
            ->add_option("--listen", serve.host, "Address to listen on. Any but this machine's own needs a token")
            ->capture_default_str();
        serveCommand->add_option("--token-file", serve.tokenFile, "File with a token that readers must give");
        serveCommand->callback([&] { runServe = true; });
    };
    return views::RunProgram(argc, argv, program, addOptions, [&] {
        views::CheckBrokerOptions(broker);
        views::FleetPrinters source(broker);
        if (!showTop && !runServe) return RunList(source);
        if (runServe) return views::RunServe(source, serve);
        source.WaitForAll(kPatience);
        return views::RunTop(source, top);
    });
}

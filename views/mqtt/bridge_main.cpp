// oriel-bridge: tells other systems of the printers of this machine. No state.
#include "model/local.h"
#include "model/program.h"
#include "mqtt/bridge.h"

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
    views::BridgeOptions options;
    const views::Program program{"bridge", "Tell other systems of the printers of this machine, until Ctrl-C.", true};
    const auto addOptions = [&](CLI::App& app) {
        app.require_subcommand(1);
        CLI::App* mqtt = app.add_subcommand(
            "mqtt", "Keep a retained topic for each printer and variable at an MQTT broker, until Ctrl-C");
        views::AddBrokerOptions(*mqtt, options.broker);
        mqtt->add_option("--machine", options.machine, "Name of this machine in topics (default: its host name)");
        mqtt->add_flag("--home-assistant", options.homeAssistant, "Also tell Home Assistant of the printers");
        mqtt->add_option("--accept-commands", options.commandsAs,
                         "Carry out commands from the broker, as this user, who must be the one that runs the bridge");
    };
    return views::RunProgram(argc, argv, program, addOptions, [&] {
        if (options.machine.empty()) options.machine = views::MachineName();
        views::LocalPrinters source;
        return views::RunBridge(source, options);
    });
}

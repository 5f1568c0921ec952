// Tells an MQTT broker of the printers of a source, and carries out its commands: `oriel bridge mqtt`. No state.
#pragma once

#include "model/source.h"
#include "mqtt/connection.h"

namespace views {

struct BridgeOptions {
    BrokerOptions broker;
    std::string machine; // this machine's name in topics
    bool homeAssistant = false;
    std::string commandsAs; // the user as whom commands are carried out; empty: none are taken
};

// Until the user ends it. With --json it prints a line for each connection. Throws Failure.
Exit RunBridge(Source& source, const BridgeOptions& options);

} // namespace views

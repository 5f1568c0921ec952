// The web view: `oriel serve`, and `oriel fleet --serve` for the machines of a broker. No state.
#pragma once

#include "model/source.h"

namespace views {

struct ServeOptions {
    std::string host = "127.0.0.1"; // to listen on; any that is not of the loopback needs a token
    uint16_t port = 8631;           // 0: one that is free
    std::string tokenFile;          // empty: no token
    bool isThisMachine = false;     // the day before is in its journal, if it has one
};

// Serves until the user ends it. Says where, once it does: as a line, or with --json {"event": "listening", "url"}.
// Throws Failure.
Exit RunServe(Source& source, const ServeOptions& options);

} // namespace views

// The metrics of all printers, in the text format of Prometheus (version 0.0.4). No state.
#pragma once

#include "serve/board.h"

namespace views {

// clients: connections and readers of /events at this moment.
struct ServerCounts {
    size_t connections = 0;
    size_t readers = 0;
    uint64_t refused = 0; // requests answered with an error, since the server began
};

std::string MetricsDocument(const Board& board, const ServerCounts& counts);

} // namespace views

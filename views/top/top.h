// The terminal view: `oriel top`, and `oriel fleet` for the machines of a broker. No state.
#pragma once

#include "model/source.h"

namespace views {

struct TopOptions {
    std::string filter;
    bool once = false; // one snapshot as text, as where there is no terminal
};

// Shows the printers until the user ends it. In a pipe, with --json, or on a terminal that cannot show a live view it
// prints one snapshot. Throws Failure.
Exit RunTop(Source& source, const TopOptions& options);

} // namespace views

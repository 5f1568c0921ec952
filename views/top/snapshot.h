// The printers once, as text or as JSON. No state.
#pragma once

#include "top/rows.h"

namespace views {

// {"printers": [SummaryJson]} with --json, else a table.
void PrintSnapshot(Rows& rows);

// "Toner 52 %, tray 2 0 %".
std::string SuppliesText(const Summary& summary);
// The state with the trouble of a printer that is stale.
std::string StateText(const Row& row);

} // namespace views

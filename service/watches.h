// Who watches what. A client process may watch a variable several times in each mode. The variable's events exist while
// anybody watches it. State: with the groups and with the watched variables, under one lock in watches.cpp.
#pragma once

#include "clients.h"
#include "signals.h"

product::ServiceStatus AddWatch(Group& group, Database& database, Variable& variable, product::WatchMode mode);
// Ends one watch: of the mode that the group used last while it has one, else of the other. kNotWatched: it has none.
product::ServiceStatus EndWatch(Group& group, const Variable& variable);
// Whether the group watches the database's mailbox, as printer sides do.
bool IsPrinterSide(const Group& group, const Database& database);
// How many handles of the database belong to groups that watch its mailbox.
DWORD HandlesOfPrinterSides(const Database& database);

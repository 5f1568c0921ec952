// Who watches what. A client process may watch a variable several times in each mode; the variable's events live while
// anybody does. State: with the groups and with the watched variables, under one lock.
#pragma once

#include "clients.h"
#include "signals.h"

product::ServiceStatus AddWatch(Group& group, Database& database, Variable& variable, product::WatchMode mode);
// One watch of the mode that the group used last, while it has one, else of the other.
product::ServiceStatus EndWatch(Group& group, const Variable& variable);
// The group is going to ask when the variable was written.
void NoteQuestion(const Group& group, const Variable& variable);
// Handles of the database that belong to those who watch its mailbox.
DWORD HandlesOfPrinterSides(const Database& database);

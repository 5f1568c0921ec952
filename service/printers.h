// The printers that the service knows: those of the printer list, and the access control lists that it keeps for them.
//
// Who writes either takes turns under one lock, so that what is kept is what the variables say. State: a copy of the
// printer list as it was read last.
#pragma once

#include "clients.h"

#include <string>
#include <vector>

// Null: the printer has none that can be used.
Database* DatabaseOfPrinter(std::string_view printer);
// Whether the printer list says that it is the database of a printer, of that name. Any name when it is empty.
bool IsListed(std::string_view database, std::string_view printer = {});

// The value of a size that the variable takes. kAccessDenied: a change that is for administrators. A printer that gets
// another name keeps its access control list.
product::ServiceStatus WritePrinterList(Database& database, Variable& variable, const Caller& caller, const BYTE* bytes,
                                        DWORD size);

// An administrator's, of a size that the variable takes; it is kept before it counts. A code of the system when that
// fails: the list is as before.
product::ServiceStatus WriteAccessList(Database& database, Variable& variable, Account& account, const BYTE* bytes,
                                       DWORD size, bool* changed);
// What the variable of a new database begins with: the kept list of the printer; without one what an administrator who
// makes the database says, else none. False: no memory.
bool FirstAccessList(const Database& database, const Caller& caller, const BYTE* bytes, DWORD size,
                     std::vector<BYTE>& first);

// The printers of the printer list, and the access control lists that the service keeps for them in the registry, so
// that they outlive the service and the machine.
//
// Writers of either take turns under one lock, so that the registry and the variables agree. State: a copy of the
// printer list as it was last read.
#pragma once

#include "clients.h"

#include <string>
#include <vector>

// The ready database of a printer; null when there is none.
Database* DatabaseOfPrinter(std::string_view printer);
// Whether the printer list names it as the database of that printer; with an empty name, of any printer.
bool IsListed(std::string_view database, std::string_view printer = {});

// Stores a value of a size that the variable takes, and signals it. kAccessDenied: only an administrator may make this
// change. A printer that is renamed keeps its access control list.
product::ServiceStatus WritePrinterList(Database& database, Variable& variable, const Caller& caller, const BYTE* bytes,
                                        DWORD size);

// Stores an administrator's value of a size that the variable takes: first in the registry, then in the variable. When
// the registry fails, the answer is its code and the list is as before.
product::ServiceStatus WriteAccessList(Database& database, Variable& variable, Account& account, const BYTE* bytes,
                                       DWORD size, bool* changed);
// The first value of the variable in a new database: the printer's kept list. Without one it is the value given when an
// administrator makes the database, and otherwise empty. False: no memory.
bool FirstAccessList(const Database& database, const Caller& caller, const BYTE* bytes, DWORD size,
                     std::vector<BYTE>& first);

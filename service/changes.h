// What clients change: databases and variables that they make, composites that they list, values that they write. Who
// may, what is stored, and what follows from it. No state.
#pragma once

#include "clients.h"

// handle: the one that the creator will have; the database is its to make ready. kAccessDenied: only an administrator
// makes one that the printer list does not have. kBadName, kDatabaseExists, kLimitReached, kOutOfMemory.
product::ServiceStatus CreateDatabase(const Caller& caller, std::string_view name, DWORD handle, Database** created);

// What product/interface.h says of the procedures of these names.
product::ServiceStatus EndInitialisationOf(Database& database, DWORD handle);
product::ServiceStatus CreateVariable(Database& database, const Caller& caller, std::string_view name,
                                      product::DatabaseType type, const BYTE* bytes, DWORD size);
product::ServiceStatus CreateVariables(Database& database, const Caller& caller, const BYTE* variables, DWORD size,
                                       DWORD* made);
product::ServiceStatus SetCompositeMembers(Database& database, const Caller& caller, std::string_view composite,
                                           std::string_view list);
// A variable that does not exist is made when it is the companion of another. The value of a composite goes to its
// members, all at one moment: kWrongSize when it is not as long as the composite, or the composite takes no values.
// kDone, kAccessDenied or kNotWritable: of most values, since a few variables take some values of anybody.
product::ServiceStatus MayWrite(Database& database, const Caller& caller, const Variable& variable);
product::ServiceStatus WriteVariable(Database& database, const Caller& caller, std::string_view name, const BYTE* bytes,
                                     DWORD size);

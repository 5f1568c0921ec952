// Writes: who may make them, what they store, and what follows from them. No state.
#pragma once

#include "clients.h"

// Stores the value and signals watchers. A variable that is not there is made when it is the companion of another. The
// value of a composite goes to its members, all at one moment.
product::ServiceStatus WriteVariable(Database& database, const Caller& caller, std::string_view name, const BYTE* bytes,
                                     DWORD size);

// Whether the caller may write that value: kDone, kAccessDenied or kNotWritable. The printer list says so itself.
product::ServiceStatus CheckWrite(const Caller& caller, const Database& database, const Variable& variable,
                                  const BYTE* bytes, DWORD size);
// After the value was stored and watchers were told.
void FollowWrite(const Caller& caller, Database& database, const Variable& variable, const BYTE* bytes, DWORD size);

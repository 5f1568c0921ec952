// Rights of handles for what lies in a store.
#pragma once

#include "kernel/named_object.h"
#include "store/database.h"

namespace oriel {

// The rights that are asked for, generic ones and MAXIMUM_ALLOWED resolved. Windows looks at an object's descriptor;
// here everybody who may read the store has the rights of readers, and the others go with the right to write it.
// ERROR_ACCESS_DENIED, also for bits that the kind does not have.
DWORD GrantRights(DWORD asked, const RightsMap& map, DWORD readers, const Database& store, DWORD* granted);

} // namespace oriel

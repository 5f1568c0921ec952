// The two stores of the registry and the tables in them.
//
// HKEY_LOCAL_MACHINE is <state directory>/registry/HKLM.sqlite, mode 0644, of the user who made it. HKEY_CURRENT_USER
// is <state directory>/registry/users/<uid>/HKCU.sqlite, in a directory that only its user may enter; users has mode
// 1777 when root shares it.
#pragma once

#include "store/database.h"

#include <winreg.h>

namespace oriel {

enum class Root { kMachine, kUser };

Database& StoreOf(Root root);

// The row of a root's own key.
inline constexpr int64_t kRootKey = 1;

// One row for each statement, in the order of kRegistryStatements.
enum RegistryStatement : size_t {
    kFindKey,      // path, id of another key -> id, whether the other exists
    kReadKey,      // id -> parent, name
    kAddKey,       // parent, path, name, written -> id
    kTouchKey,     // written, id
    kDeleteKey,    // id
    kCountSubKeys, // id -> count
    kEnumKey,      // parent, index -> name, written
    kDescribeKey,  // id -> written, subkeys, longest, values, longest name, longest data
    kSubKeys,      // parent -> id, name
    kReadValue,    // key, folded name -> type, data
    kWriteValue,   // key, folded name, name, type, data
    kDeleteValue,  // key, folded name
    kDeleteValues, // key
    kEnumValue,    // key, index -> name, type, data
    kValues,       // key -> name, type, data
    // path, path + "\", path + "]": what is below a path lies between the last two
    kDeleteTreeValues,
    kDeleteTree,
};

// 100 ns units since 1601-01-01, UTC, as a FILETIME has them.
int64_t TimeNow();

} // namespace oriel

// The two stores of the registry, the tables in them, and how keys are named.
//
// HKEY_LOCAL_MACHINE is <state directory>/registry/HKLM.sqlite, mode 0644, of the user who made it. HKEY_CURRENT_USER
// is <state directory>/registry/users/<uid>/HKCU.sqlite, in a directory that only its user may enter; users has mode
// 1777 when root shares it.
#pragma once

#include "store/database.h"

#include <string>
#include <string_view>
#include <vector>
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

inline constexpr size_t kLongestKeyName = 255;
inline constexpr size_t kLongestValueName = 16383;
inline constexpr size_t kLongestPath = 32767;
inline constexpr int kDeepestPath = 512;
inline constexpr size_t kLargestData = 1 << 20;

struct KeyName {
    std::string_view spelled; // in the text that was divided
    std::string folded;
};

// Divides a path below a key: trailing and doubled backslashes are passed over; none for an absent or empty path.
// ERROR_BAD_PATHNAME: it starts with a backslash. ERROR_INVALID_PARAMETER: a name or the path is too long, or has
// control characters.
LSTATUS DivideKeyPath(std::string_view path, std::vector<KeyName>* names);

// The folded path of a key below another, as the store has it: names with a backslash between them, "" for the root.
std::string JoinKeyPath(std::string_view parent, const std::vector<KeyName>& names);

} // namespace oriel

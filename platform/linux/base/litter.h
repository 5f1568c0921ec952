// Removal of what other users put into a folder for everybody. No state.
#pragma once

#include "base/descriptor.h"

#include <string>
#include <vector>

namespace oriel {

// The names in a folder, 20,000 at most; empty when it cannot be read.
std::vector<std::string> NamesIn(int folder);

// Removes a file, or a directory. Root removes it with all that is in it, but not more than 20,000 files in a call:
// what is left of it has a name for which IsHalfRemoved.
void RemoveLitter(int folder, const std::string& name);
bool IsHalfRemoved(const std::string& name);

} // namespace oriel

// The folder registry/users, in which anybody may make directories. No state.
#pragma once

namespace oriel {

// Leaves each user the one directory that the registry uses, and removes everything else, with what is in it. For root;
// others do nothing.
void TidyUserFolders();

} // namespace oriel

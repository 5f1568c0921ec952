// Where the layer keeps what outlives a process: the state directory (registry, spool; survives a restart of the
// machine) and the run directory (sockets, kernel objects, windows; on a tmpfs).
//
// ORIEL_STATE_DIR and ORIEL_RUNTIME_DIR name them. Without them root uses /var/lib/oriel and /run/oriel, shared by all
// users of the machine; another user uses those too when they exist, else directories of its own under XDG_STATE_HOME
// (or ~/.local/state) and XDG_RUNTIME_DIR (or /tmp/oriel-<uid>).
#pragma once

#include <string>

namespace oriel {

// Without a trailing slash. The directory exists on return, or an empty string says that it cannot be made; a directory
// that another user could have planted (not ours, not root's, or writable by others without the sticky bit) is refused.
const std::string& StateDirectory();
const std::string& RuntimeDirectory();

// A folder below the directory that all users of the machine may put entries into (mode 1777 when it is shared).
std::string RuntimeFolder(const char* name);
std::string StateFolder(const char* name);

} // namespace oriel

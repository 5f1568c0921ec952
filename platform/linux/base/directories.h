// Where the layer keeps what outlives a process: the state directory (registry, spool; survives a restart of the
// machine) and the run directory (sockets, kernel objects, windows; best on a tmpfs).
//
// ORIEL_STATE_DIR and ORIEL_RUNTIME_DIR name them. Otherwise they are those of a scope:
//
//   system  /var/lib/oriel and /run/oriel, shared by all users of the machine
//   user    one user's own, under XDG_STATE_HOME (or ~/.local/state) and XDG_RUNTIME_DIR (or /tmp/oriel-<uid>)
//
// ORIEL_SCOPE chooses the scope. Without it a process takes its user's own directories while they are in use (a product
// is up there); else those of the system where there is a state directory of it, and always for root; else its user's.
// The scope is found once and holds for both directories.
//
// Finding them makes nothing. They are made by what has something to put into them.
#pragma once

#include <string>

namespace oriel {

enum class Scope { System, User, Named, Wrong };
// Named: an environment variable names at least one of the directories. Wrong: ORIEL_SCOPE has another value, and there
// are no directories.
Scope TheScope();
// For what runs before the scope is found. False afterwards.
bool ChooseScope(Scope scope);

// The paths, without a trailing slash, whether or not something is there; empty when there is no safe place for them.
const std::string& StateDirectoryName();
const std::string& RuntimeDirectoryName();

// The same of a directory that is there; empty when it is not, or when another user could have planted it (not ours,
// not root's, or writable by others without the sticky bit).
const std::string& StateDirectory();
const std::string& RuntimeDirectory();

// The state directory, made if it is missing. Empty when it cannot be made or relied on.
const std::string& MakeStateDirectory();
// Its name while nothing is there; else empty.
const std::string& MissingStateDirectory();

// A folder below the directory that all users of the machine may put entries into (mode 1777 when it is shared), made
// if it is missing.
std::string RuntimeFolder(const char* name);
std::string StateFolder(const char* name);

// From now on this process makes nothing in the run directory, and not the directory: what is not there cannot be had.
// Until it claims the directories.
void OnlyLook();
// Makes both directories with their folders, and keeps them in use until this process ends. Processes that it starts
// use the same. False when they cannot be made.
bool ClaimDirectories();

} // namespace oriel

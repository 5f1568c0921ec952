// The two directories for what outlives a process:
//
//   state directory  registry and spool; survives a reboot
//   run directory    sockets, windows; best on a tmpfs
//
// ORIEL_STATE_DIR and ORIEL_RUNTIME_DIR name them. Without these variables, the scope decides:
//
//   system  /var/lib/oriel and /run/oriel, shared by all users
//   user    "oriel" in XDG_STATE_HOME (or ~/.local/state) and in XDG_RUNTIME_DIR (or /tmp/oriel-<uid>)
//
// ORIEL_SCOPE chooses the scope. Without it, a process takes the directories of its user while a product uses them;
// else those of the system when its state directory exists or the process is root's; else those of its user. The scope
// is found once and holds for both directories.
//
// State: the scope and the paths (directories.cpp). Any thread may call these functions.
#pragma once

#include <string>

namespace oriel {

enum class Scope { System, User, Named, Wrong };
// Named: a variable names at least one of the directories. Wrong: ORIEL_SCOPE has another value; there are no
// directories.
Scope TheScope();
// Chooses the scope, before it is found; false afterwards.
bool ChooseScope(Scope scope);

// The paths, without a trailing slash, whether or not the directories exist. Empty when there is no safe place.
const std::string& StateDirectoryName();
const std::string& RuntimeDirectoryName();

// The same for existing directories; empty when one is missing or another user could have planted it: it is neither
// ours nor root's, or others may write to it without the sticky bit.
const std::string& StateDirectory();
const std::string& RuntimeDirectory();

// Makes the state directory if it is missing. Empty when it cannot be made or trusted.
const std::string& MakeStateDirectory();
// The path of the state directory while it does not exist, else empty.
const std::string& MissingStateDirectory();

// Makes the run directory and its folders if they are missing. Empty when it cannot be made or trusted.
const std::string& MakeRuntimeDirectory();
// A folder of the directory, made if it is missing. In a directory that all users share, everybody may put files into
// "windows" and the folders of the state directory (mode 1777); only the owner into the others. Empty when it cannot be
// made or trusted.
std::string RuntimeFolder(const char* name);
std::string StateFolder(const char* name);

// This process makes nothing in the run directory any more, until ClaimDirectories: what is missing stays missing.
void OnlyLook();
bool OnlyLooks();
// Makes both directories with their folders and keeps them in use until this process ends. Its child processes use the
// same ones. False when they cannot be made.
bool ClaimDirectories();

} // namespace oriel

// What the platform layer offers beyond the Win32 API; Windows has other ways for it. No state.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

// The directories for persistent files, and for sockets and kernel objects. They need not exist. Empty on a system that
// has no such directories.
std::string StateDirectoryName();
std::string RunDirectoryName();

// Whose directories these are: "system" or "user"; "environment" when variables name them. Empty on a system with one
// product per machine. Throws Failure when ORIEL_SCOPE is not a scope.
std::string ScopeName();
// Whether this system has the option --scope.
bool HasScopes();
// Creates the directories. Nothing else in a command does. Throws Failure.
void ClaimDirectories();
// Removes what killed processes and other users left in them.
void TidyDirectories();

// A path as users of this system write it; UTF-8.
std::string ShownPath(std::string path);

// Makes a write to a closed pipe fail instead of ending the process.
void KeepRunningOnClosedPipes();

// Runs a program that lies beside this one in its place: same process, same streams. Throws Failure.
[[noreturn]] void ReplaceProgram(const std::string& name, const std::vector<std::string>& arguments);

// .reg text. An import is all or nothing; errorLine is the line that was refused, 0 when no line is to blame.
LSTATUS ImportRegistry(const std::string& text, DWORD& errorLine);
LSTATUS ExportRegistry(HKEY root, const std::string& path, std::string& text);

// Sends a line of sd_notify(3) to the supervisor that started this program, if it listens. The first call must come
// before any program is started.
void TellSupervisor(const char* line);

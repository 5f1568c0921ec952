// What the platform layer has beside the Win32 API, and Windows has in other ways.
#pragma once

#include <windows.h>

#include <string>

// Where the layer keeps what lasts, and sockets and kernel objects, whether or not they are there; empty where there
// are no such directories.
std::string StateDirectoryName();
std::string RunDirectoryName();

// Whose directories these are: "system" or "user". "environment": a variable names them. Empty where there is one
// product for the machine. Throws Failure when the environment names no scope that there is.
std::string ScopeName();
// Whether --scope is an option here.
bool HasScopes();
// Makes the directories, for this process and those that it starts. Until then a command makes none. Throws Failure.
void ClaimDirectories();

// A path of the registry as this system's users write it; UTF-8.
std::string ShownPath(std::string path);

// From now on a write to a closed pipe fails, rather than ending this process.
void KeepRunningOnClosedPipes();

// .reg text. ImportRegistry: whole or not at all; errorLine is the line refused, 0 when the failure belongs to none.
LSTATUS ImportRegistry(const std::string& text, DWORD& errorLine);
LSTATUS ExportRegistry(HKEY root, const std::string& path, std::string& text);

// A line of sd_notify(3) to what started this program, if that listens. The first call is made before anything is
// started.
void TellSupervisor(const char* line);

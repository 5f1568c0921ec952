// What the platform layer has beside the Win32 API, and Windows has in other ways.
#pragma once

#include <windows.h>

#include <string>

// Where the layer keeps what lasts, and sockets and kernel objects; empty where there are no such directories.
std::string StateDirectoryName();
std::string RunDirectoryName();

// .reg text. ImportRegistry: whole or not at all; errorLine is the line refused, 0 when the failure belongs to none.
LSTATUS ImportRegistry(const std::string& text, DWORD& errorLine);
LSTATUS ExportRegistry(HKEY root, const std::string& path, std::string& text);

// A line of sd_notify(3) to what started this program, if that listens. The first call is made before anything is started.
void TellSupervisor(const char* line);

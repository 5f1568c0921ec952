// The shared library as a program that was not linked with it has it. A file for each system.
#pragma once

#include <string>

void* LoadTheLibrary(std::string& failure); // null when it fails
void* FindExport(void* library, const char* name);
void UnloadTheLibrary(void* library);

// Programs of the product that this command starts. They have its standard streams.
#pragma once

#include "handles.h"

#include <string>

// A word of a command line as the C run-time divides it.
std::string Quoted(const std::string& word);
// Starts a program with that command line; empty when it cannot, which the last error then tells.
KernelHandle StartProgram(const std::string& program, std::string commandLine);

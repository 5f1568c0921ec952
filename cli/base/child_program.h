// Starting programs of the product. They inherit this command's standard streams. No state.
#pragma once

#include "base/handles.h"

#include <string>

// Quotes a word so that the C run-time reads it as one argument.
std::string Quoted(const std::string& word);
// Starts a program with that command line. None when it cannot be started; the last error has the reason.
KernelHandle StartProgram(const std::string& program, std::string commandLine);

// Whole files, for options that name one. "-" is standard input or output. No state.
#pragma once

#include <string>

// Both throw Failure.
std::string ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const std::string& content);

// Texts between UTF-8 and the ANSI code page. No state.
#pragma once

#include <windows.h>

#include <string>

// The text itself when it is not UTF-8.
std::string ToAnsi(const std::string& utf8);
std::string ToUtf8(const std::string& ansi);
// The longest beginning with whole characters that has at most so many bytes.
std::string CutAnsi(const std::string& ansi, SIZE_T most);

// Text of this system (UTF-8) and of the platform's user (the ANSI code page).
#pragma once

#include <string>
#include <string_view>

namespace oriel {

// What is not there in the other encoding, and what is invalid, becomes "?" or U+FFFD.
std::string Utf8ToAnsi(std::string_view utf8);
std::string AnsiToUtf8(std::string_view ansi);

} // namespace oriel

// Names and other text of the platform's user (the ANSI code page, backslashes) and of this system (UTF-8, slashes).
#pragma once

#include <string>
#include <string_view>

namespace oriel {

// A file name of the platform's user as this system's. A drive prefix "X:" is dropped, for there is one tree; the trail
// byte of a double-byte character is never taken for a backslash. Empty for NULL, an empty name, and text that is not
// valid in the ANSI code page.
std::string UnixPath(const char* ansiPath);

// The inverse, without a drive prefix. Characters that the ANSI code page does not have make it empty, rather than a
// name that would mean another file.
std::string WindowsPath(const std::string& unixPath);

// What is not there in the other encoding, and what is invalid, becomes "?" or U+FFFD.
std::string Utf8ToAnsi(std::string_view utf8);
std::string AnsiToUtf8(std::string_view ansi);

// What names that are equal without case have in common: upper case, in UTF-8.
std::string FoldName(std::string_view name);

// Bytes of the character of the ANSI code page at a place: 1 or 2, the second of which may not be there any more, and
// may look like a backslash or a quotation mark.
size_t CharacterLength(std::string_view text, size_t at);

// Whether the text ends in the first half of a double-byte character.
bool EndsWithinCharacter(std::string_view text);

} // namespace oriel

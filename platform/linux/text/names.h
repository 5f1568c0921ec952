// Text of the platform's user (ANSI code page, backslashes) and of this system (UTF-8, slashes). No state.
#pragma once

#include <string>
#include <string_view>

namespace oriel {

// A file name of the platform's user as one of this system. A drive prefix "X:" is dropped, because there is one tree;
// the trail byte of a double-byte character is never taken for a backslash. Empty for NULL, an empty name, and text
// that is invalid in the ANSI code page.
std::string UnixPath(const char* ansiPath);

// The inverse, without a drive prefix. Empty when the ANSI code page lacks a character, because another name would mean
// another file.
std::string WindowsPath(const std::string& unixPath);

// Characters that the other encoding lacks, and invalid ones, become "?" or U+FFFD.
std::string Utf8ToAnsi(std::string_view utf8);
std::string AnsiToUtf8(std::string_view ansi);

// The form for comparing names without case: upper case, in UTF-8.
std::string FoldName(std::string_view name);

// Bytes of the ANSI character at a place: 1 or 2. The second byte may be missing at the end, and may equal a backslash
// or a quotation mark.
size_t CharacterLength(std::string_view text, size_t at);

// True when the text ends within a double-byte character.
bool EndsWithinCharacter(std::string_view text);

} // namespace oriel

// Text conversion between the terminal (UTF-8) and everything below (the ANSI code page). No state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

// Nothing when the text is not UTF-8 or has a character that the code page lacks.
std::optional<std::string> ToAnsi(std::string_view utf8);
// The same, or throws Failure (Exit::Usage). what: "the printer name".
std::string RequireAnsi(const std::string& utf8, const std::string& what);
// Always valid UTF-8. Bytes that are not text in the code page become U+FFFD or the code page's own replacement.
std::string ToUtf8(std::string_view ansi);
// The same, up to the first NUL of a field.
std::string FieldToUtf8(const uint8_t* field, size_t size);

// UTF-8 that is safe to show: control characters, which could drive the terminal, become \n, \t or \x1b.
std::string Printable(std::string_view utf8);
// Columns that UTF-8 text takes on a terminal.
size_t DisplayWidth(std::string_view utf8);

// "04 00 ff", and back. Blanks between bytes are optional; 0x and commas are accepted.
std::string ToHex(const uint8_t* bytes, size_t size);
std::optional<Bytes> FromHex(std::string_view text);

// A whole number, decimal or with 0x, with an optional minus sign. Nothing when it does not fit `bits` bits as a signed
// or as an unsigned number.
std::optional<uint64_t> ParseNumber(std::string_view text, unsigned bits);

// The candidate that the user most likely meant: the same word in another case, or one or two typing errors away. Empty
// when there is none.
std::string Nearest(std::string_view word, const std::vector<std::string>& candidates);

// Matches a shell pattern with * and ?, without regard to case.
bool MatchesPattern(std::string_view pattern, std::string_view text);

// Text on its way between the terminal, which speaks UTF-8, and everything below, which speaks the ANSI code page.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

// Nothing when the text is no UTF-8, or holds a character that the code page does not have.
std::optional<std::string> ToAnsi(std::string_view utf8);
// The same, or throws Failure (Exit::Usage). what: "the printer name".
std::string RequireAnsi(const std::string& utf8, const std::string& what);
// Always valid UTF-8: bytes that are no text in the code page become U+FFFD or the code page's own replacement.
std::string ToUtf8(std::string_view ansi);
// The same, up to the first NUL of a field.
std::string FieldToUtf8(const uint8_t* field, size_t size);

// UTF-8 as it may be shown: control characters, which could drive the terminal, as \n, \t or \x1b.
std::string Printable(std::string_view utf8);
// Columns that UTF-8 text takes on a terminal.
size_t DisplayWidth(std::string_view utf8);

// "04 00 ff", and back; blanks between bytes may be left out, 0x and commas are taken too.
std::string ToHex(const uint8_t* bytes, size_t size);
std::optional<Bytes> FromHex(std::string_view text);

// A whole number, decimal or with 0x, with an optional minus sign. Nothing when it does not fit `bits` bits as a signed
// or as an unsigned number.
std::optional<uint64_t> ParseNumber(std::string_view text, unsigned bits);

// The candidate that the word was most likely meant to be: the same in another case, or a slip or two away; empty when
// there is none.
std::string Nearest(std::string_view word, const std::vector<std::string>& candidates);

// Shell pattern with * and ?, letters without regard to case.
bool MatchesPattern(std::string_view pattern, std::string_view text);

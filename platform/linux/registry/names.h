// Names of keys and values: how a path is divided, and when two names are the same.
#pragma once

#include <string>
#include <string_view>
#include <vector>
#include <winreg.h>

namespace oriel {

inline constexpr size_t kLongestKeyName = 255;
inline constexpr size_t kLongestValueName = 16383;
inline constexpr size_t kLongestPath = 32767;
inline constexpr int kDeepestPath = 512;
inline constexpr size_t kLargestData = 1 << 20;

// What names that are equal without case have in common: upper case, in UTF-8.
std::string FoldName(std::string_view name);

// Bytes of the character of the ANSI code page at a place: 1 or 2, the second of which may not be there any more, and
// may look like a backslash or a quotation mark.
size_t CharacterLength(std::string_view text, size_t at);

// Whether the text ends in the first half of a double-byte character.
bool EndsWithinCharacter(std::string_view text);

struct KeyName {
    std::string_view spelled; // in the text that was divided
    std::string folded;
};

// Divides a path below a key: trailing and doubled backslashes are passed over; none for an absent or empty path.
// ERROR_BAD_PATHNAME: it starts with a backslash. ERROR_INVALID_PARAMETER: a name or the path is too long, or has
// control characters.
LSTATUS DivideKeyPath(std::string_view path, std::vector<KeyName>* names);

// The folded path of a key below another, as the store has it: names with a backslash between them, "" for the root.
std::string JoinKeyPath(std::string_view parent, const std::vector<KeyName>& names);

} // namespace oriel

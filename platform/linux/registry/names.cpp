#include "registry/names.h"

#include <algorithm>
#include <clocale>
#include <cwctype>
#include <winnls.h>

namespace oriel {
namespace {

bool IsAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// The system's table of Unicode letters, whatever locale the host program set.
wint_t UpperCase(char16_t character) {
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (unicode == nullptr || (character >= 0xd800 && character < 0xe000)) return character;
    const wint_t upper = towupper_l(character, unicode);
    return upper <= 0xffff ? upper : character;
}

} // namespace

std::string FoldName(std::string_view name) {
    if (IsAscii(name)) {
        // Most names; and those that the code page itself is read by, which must not ask for the code page.
        std::string folded(name);
        for (char& c : folded)
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        return folded;
    }
    const int length = static_cast<int>(name.size());
    std::u16string wide(name.size(), u'\0');
    wide.resize(
        static_cast<size_t>(std::max(0, MultiByteToWideChar(CP_ACP, 0, name.data(), length, wide.data(), length))));
    for (char16_t& character : wide)
        character = static_cast<char16_t>(UpperCase(character));
    std::string folded(wide.size() * 3, '\0');
    folded.resize(static_cast<size_t>(
        std::max(0, WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), folded.data(),
                                        static_cast<int>(folded.size()), nullptr, nullptr))));
    return folded;
}

size_t CharacterLength(std::string_view text, size_t at) {
    const auto byte = static_cast<BYTE>(text[at]);
    return byte >= 0x80 && IsDBCSLeadByte(byte) ? 2 : 1;
}

bool EndsWithinCharacter(std::string_view text) {
    size_t at = 0;
    while (at < text.size())
        at += CharacterLength(text, at);
    return at > text.size();
}

LSTATUS DivideKeyPath(std::string_view path, std::vector<KeyName>* names) {
    if (path.empty()) return ERROR_SUCCESS;
    if (path.front() == '\\') return ERROR_BAD_PATHNAME;
    if (path.size() > kLongestPath) return ERROR_INVALID_PARAMETER;
    size_t at = 0;
    while (at < path.size()) {
        size_t end = at;
        while (end < path.size() && path[end] != '\\') {
            if (static_cast<unsigned char>(path[end]) < ' ') return ERROR_INVALID_PARAMETER;
            end += CharacterLength(path, end);
        }
        if (end > path.size() || end - at > kLongestKeyName) return ERROR_INVALID_PARAMETER;
        const std::string_view name = path.substr(at, end - at);
        if (!name.empty()) names->push_back({name, FoldName(name)});
        at = end + 1;
    }
    return ERROR_SUCCESS;
}

std::string JoinKeyPath(std::string_view parent, const std::vector<KeyName>& names) {
    std::string path(parent);
    for (const KeyName& name : names) {
        if (!path.empty()) path += '\\';
        path += name.folded;
    }
    return path;
}

} // namespace oriel

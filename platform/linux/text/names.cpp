// Text between the ANSI code page and UTF-8. No state.
#include "text/names.h"

#include "text/code_page.h"

#include <algorithm>
#include <clocale>
#include <cwctype>
#include <winnls.h>

namespace oriel {
namespace {

bool IsAsciiLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Converts text of one code page to another. replace(character) returns the character to append; 0 ends the conversion
// with result false. A character that the target lacks is passed to it again as kReplacement.
template <typename Replace>
bool Append(const CodePage& from, std::string_view text, const CodePage& to, std::string& result, Replace replace) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t at = 0; at < text.size();) {
        const DecodedChar next = DecodeChar(from, bytes + at, text.size() - at);
        char encoded[4];
        char32_t character = replace(next.valid ? next.character : kReplacement);
        unsigned length = EncodeChar(to, character, encoded);
        if (length == 0) {
            character = replace(kReplacement);
            length = EncodeChar(to, character, encoded);
        }
        if (character == 0 || length == 0) return false;
        result.append(encoded, length);
        at += next.length;
    }
    return true;
}

const CodePage& Utf8() {
    return *FindCodePage(65001);
}

} // namespace

std::string UnixPath(const char* ansiPath) {
    if (ansiPath == nullptr) return {};
    std::string_view text = ansiPath;
    if (text.size() >= 2 && IsAsciiLetter(text[0]) && text[1] == ':') text.remove_prefix(2);
    std::string path;
    const bool whole = Append(AnsiCodePage(), text, Utf8(), path, [](char32_t character) -> char32_t {
        if (character == kReplacement) return 0;
        return character == U'\\' ? U'/' : character;
    });
    return whole ? path : std::string();
}

std::string WindowsPath(const std::string& unixPath) {
    std::string path;
    const bool whole = Append(Utf8(), unixPath, AnsiCodePage(), path, [](char32_t character) -> char32_t {
        // A backslash in a name of this system would become a separator.
        if (character == kReplacement || character == U'\\') return 0;
        return character == U'/' ? U'\\' : character;
    });
    return whole ? path : std::string();
}

std::string Utf8ToAnsi(std::string_view utf8) {
    std::string result;
    Append(Utf8(), utf8, AnsiCodePage(), result,
           [](char32_t character) { return character == kReplacement ? U'?' : character; });
    return result;
}

std::string AnsiToUtf8(std::string_view ansi) {
    std::string result;
    Append(AnsiCodePage(), ansi, Utf8(), result, [](char32_t character) { return character; });
    return result;
}

namespace {

bool IsAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// The system's table of Unicode letters, whatever locale the host program has set.
wint_t UpperCase(char16_t character) {
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (unicode == nullptr || (character >= 0xd800 && character < 0xe000)) return character;
    const wint_t upper = towupper_l(character, unicode);
    return upper <= 0xffff ? upper : character;
}

} // namespace

std::string FoldName(std::string_view name) {
    if (IsAscii(name)) {
        // Most names, including those through which the code page is determined, which must not ask for the code page.
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

} // namespace oriel

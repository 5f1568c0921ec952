// File names and other text between the ANSI code page and UTF-8. Keeps nothing.
#include "text/paths.h"

#include "text/code_page.h"
#include "text/strings.h"

namespace oriel {
namespace {

bool IsAsciiLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Walks text of one code page and appends it in another. replace(character) gives the character to append for
// each one; 0 appends nothing more and makes the result false. One that the target does not have is handed back as
// kReplacement.
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

} // namespace oriel

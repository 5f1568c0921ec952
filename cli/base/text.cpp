// Conversions of text.h. No state.
#include "base/text.h"

#include "base/failure.h"

#include <windows.h>

#include <algorithm>
#include <charconv>

namespace {

using WideText = std::basic_string<WCHAR>;

std::optional<WideText> Widen(UINT codePage, DWORD flags, std::string_view text) {
    if (text.empty()) return WideText{};
    const int size = static_cast<int>(text.size());
    const int length = MultiByteToWideChar(codePage, flags, text.data(), size, nullptr, 0);
    if (length <= 0) return std::nullopt;
    WideText wide(static_cast<size_t>(length), WCHAR{});
    if (MultiByteToWideChar(codePage, flags, text.data(), size, wide.data(), length) != length) return std::nullopt;
    return wide;
}

std::optional<std::string> Narrow(UINT codePage, const WideText& wide) {
    if (wide.empty()) return std::string{};
    const int size = static_cast<int>(wide.size());
    const int length = WideCharToMultiByte(codePage, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    if (length <= 0) return std::nullopt;
    std::string text(static_cast<size_t>(length), '\0');
    if (WideCharToMultiByte(codePage, 0, wide.data(), size, text.data(), length, nullptr, nullptr) != length)
        return std::nullopt;
    return text;
}

// The code point that starts at position, which is moved behind it. The text is valid UTF-8 or nearly so.
uint32_t NextCodePoint(std::string_view text, size_t& position) {
    const auto lead = static_cast<uint8_t>(text[position++]);
    const unsigned more = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : lead >= 0xc0 ? 1 : 0;
    uint32_t point = more ? lead & (0x3fu >> more) : lead;
    for (unsigned i = 0; i < more && position < text.size(); ++i)
        point = point << 6 | (static_cast<uint8_t>(text[position++]) & 0x3f);
    return point;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

char LowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// The edit distance: letters inserted, deleted, replaced or swapped with their neighbour.
size_t Slips(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> table(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            size_t& here = table[i][j];
            here = i == 0 ? j : i;
            if (i == 0 || j == 0) continue;
            const auto same = [&](size_t m, size_t n) { return LowerCase(a[m]) == LowerCase(b[n]); };
            here = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1, table[i - 1][j - 1] + !same(i - 1, j - 1)});
            if (i > 1 && j > 1 && same(i - 1, j - 2) && same(i - 2, j - 1))
                here = std::min(here, table[i - 2][j - 2] + 1);
        }
    }
    return table[a.size()][b.size()];
}

} // namespace

std::optional<std::string> ToAnsi(std::string_view utf8) {
    const std::optional<WideText> wide = Widen(CP_UTF8, MB_ERR_INVALID_CHARS, utf8);
    if (!wide) return std::nullopt;
    std::optional<std::string> ansi = Narrow(CP_ACP, *wide);
    // Converting back also finds characters that were replaced by similar ones.
    if (!ansi || Widen(CP_ACP, 0, *ansi) != wide) return std::nullopt;
    return ansi;
}

std::string RequireAnsi(const std::string& utf8, const std::string& what) {
    std::optional<std::string> ansi = ToAnsi(utf8);
    if (ansi) return *std::move(ansi);
    throw UsageFailure(what + " \"" + utf8 + "\" holds characters that code page " + std::to_string(GetACP()) +
                           " does not have",
                       "use others; 'oriel status' shows the code page");
}

std::string ToUtf8(std::string_view ansi) {
    const std::optional<WideText> wide = Widen(CP_ACP, 0, ansi);
    return wide ? Narrow(CP_UTF8, *wide).value_or("\xef\xbf\xbd") : "\xef\xbf\xbd";
}

std::string FieldToUtf8(const uint8_t* field, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(field), size);
    return ToUtf8(text.substr(0, text.find('\0')));
}

std::string Printable(std::string_view utf8) {
    std::string shown;
    for (size_t at = 0; at < utf8.size();) {
        const size_t start = at;
        const uint32_t point = NextCodePoint(utf8, at);
        if (point == '\n') {
            shown += "\\n";
        } else if (point == '\t') {
            shown += "\\t";
        } else if (point < 0x20 || (point >= 0x7f && point < 0xa0)) {
            const auto byte = static_cast<uint8_t>(point);
            shown += "\\x" + ToHex(&byte, 1);
        } else {
            shown += utf8.substr(start, at - start);
        }
    }
    return shown;
}

size_t DisplayWidth(std::string_view utf8) {
    size_t width = 0;
    for (size_t at = 0; at < utf8.size();) {
        const uint32_t point = NextCodePoint(utf8, at);
        const bool wide = (point >= 0x1100 && point <= 0x115f) || (point >= 0x2e80 && point <= 0xa4cf) ||
                          (point >= 0xac00 && point <= 0xd7a3) || (point >= 0xf900 && point <= 0xfaff) ||
                          (point >= 0xff00 && point <= 0xff60) || (point >= 0xffe0 && point <= 0xffe6);
        width += wide ? 2 : 1;
    }
    return width;
}

std::string ToHex(const uint8_t* bytes, size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        if (i) text += ' ';
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

std::optional<Bytes> FromHex(std::string_view text) {
    Bytes bytes;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ' || text[i] == ',' || text[i] == '\n' || text[i] == '\t') {
            ++i;
            continue;
        }
        if (text.substr(i, 2) == "0x" || text.substr(i, 2) == "0X") i += 2;
        if (i + 1 >= text.size()) return std::nullopt;
        const int high = HexDigit(text[i]);
        const int low = HexDigit(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes.push_back(static_cast<uint8_t>(high << 4 | low));
        i += 2;
    }
    return bytes;
}

std::optional<uint64_t> ParseNumber(std::string_view text, unsigned bits) {
    const bool negative = text.starts_with('-');
    if (negative) text.remove_prefix(1);
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }
    uint64_t magnitude = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (error != std::errc{} || end != text.data() + text.size() || text.empty()) return std::nullopt;
    const uint64_t highest = bits == 64 ? UINT64_MAX : (uint64_t{1} << bits) - 1;
    if (negative) {
        if (magnitude > uint64_t{1} << (bits - 1)) return std::nullopt;
        return (0 - magnitude) & highest;
    }
    if (magnitude > highest) return std::nullopt;
    return magnitude;
}

bool MatchesPattern(std::string_view pattern, std::string_view text) {
    size_t p = 0, t = 0;
    size_t star = std::string_view::npos, starText = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            starText = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || LowerCase(pattern[p]) == LowerCase(text[t]))) {
            ++p;
            ++t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++starText;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

std::string Nearest(std::string_view word, const std::vector<std::string>& candidates) {
    constexpr size_t kLongest = 64; // longer words are not compared
    std::string nearest;
    size_t fewest = word.size() > kLongest ? 0 : 1 + std::min<size_t>(2, word.size() / 3);
    for (const std::string& candidate : candidates) {
        if (candidate.size() > kLongest || fewest == 0) continue;
        if (const size_t slips = Slips(word, candidate); slips < fewest) {
            fewest = slips;
            nearest = candidate;
        }
    }
    return nearest;
}

// lstrcmpA and lstrcmpiA: the order of text. No state.
//
// Four keys, each deciding only between texts that the earlier ones leave equal: base letters and other characters
// without hyphens and apostrophes; accents; case (lower first); the bytes, with hyphens and apostrophes after
// everything else. So only identical texts are equal, and sorted lists can be searched. Two ASCII texts are compared in
// one pass over a table of weights; hyphens, apostrophes and other characters are compared by elements.
#include "text/code_page.h"

#include <cstdint>
#include <cstring>
#include <string_view>
#include <winnls.h>

namespace oriel {
namespace {

using std::string_view;

// Weights that keep characters of one kind together; each kind starts where the previous one ends.
constexpr unsigned kControls = 1; // and the end of the text, 0
constexpr unsigned kPunctuation = 0x30;
constexpr unsigned kSymbols = 0x1000;     // + character
constexpr unsigned kDigits = 0x20000;     // + value
constexpr unsigned kLetters = 0x20100;    // + letter of the Latin alphabet, 0 to 25
constexpr unsigned kCharacters = 0x30000; // + character: all other scripts
constexpr unsigned kInvalid = 0x200000;   // + byte
constexpr unsigned kMinor = 0x200100;     // + character: hyphens and apostrophes, where they count

constexpr string_view kPunctuationOrder = " !\"#$%&()*,./:;?@[\\]^_`{|}~+<=>";

// Base letters of U+00C0 to U+017F, Latin-1 and Latin Extended-A; "." for none.
constexpr string_view kBaseLetters =
    "AAAAAAACEEEEIIIIDNOOOOO.OUUUUYTsaaaaaaaceeeeiiiidnooooo.ouuuuyty"
    "AaAaAaCcCcCcCcDdDdEeEeEeEeEeGgGgGgGgHhHhIiIiIiIiIiIiJjKkkLlLlLlLlLlNnNnNnnNnOoOoOoOoRrRrRrSsSsSsSsTtTtTtUuUuUu"
    "UuUuUuWwYyYZzZzZzs";
constexpr char32_t kFirstAccented = 0xC0;
constexpr char32_t kEndAccented = 0x180;
static_assert(kBaseLetters.size() == kEndAccented - kFirstAccented);

// The same for both cases of an accented letter: the code of the small one.
constexpr unsigned AccentOf(char32_t c) {
    if (c == 0x178) return 0xFF; // Y with diaeresis, whose small letter is in Latin-1
    if (c < 0x100) return c | 0x20;
    const bool smallIsEven = (c >= 0x139 && c <= 0x148) || c >= 0x179;
    return smallIsEven ? (c + 1) & ~1U : c | 1;
}

struct Element {
    unsigned base = 0;   // 0 at the end of the text
    unsigned accent = 0; // 0 for a plain letter
    bool upper = false;
};

constexpr bool IsAsciiLetter(char32_t c) {
    return (c >= U'A' && c <= U'Z') || (c >= U'a' && c <= U'z');
}

constexpr Element LetterElement(char letter, unsigned accent) {
    const bool upper = letter >= 'A' && letter <= 'Z';
    return {kLetters + static_cast<unsigned>(letter - (upper ? 'A' : 'a')), accent, upper};
}

constexpr Element AsciiElement(unsigned char c) {
    if (IsAsciiLetter(c)) return LetterElement(static_cast<char>(c), 0);
    if (c >= '0' && c <= '9') return {kDigits + c - '0'};
    const size_t place = kPunctuationOrder.find(static_cast<char>(c));
    if (c >= 0x20 && c < 0x7F && place != string_view::npos) return {kPunctuation + static_cast<unsigned>(place)};
    return {c == 0x7F ? kSymbols + c : kControls + c};
}

struct AsciiElements {
    Element elements[0x80];
};
constexpr AsciiElements kAsciiElements = [] {
    AsciiElements table;
    for (unsigned c = 0; c < 0x80; ++c)
        table.elements[c] = AsciiElement(static_cast<unsigned char>(c));
    return table;
}();

// The small letter in scripts whose capitals are contiguous: Greek, Cyrillic, full-width Latin. 0: not a capital.
constexpr char32_t LowerOf(char32_t c) {
    if (c >= 0x0391 && c <= 0x03AB) return c + 0x20;
    if (c >= 0x0410 && c <= 0x042F) return c + 0x20;
    if (c >= 0x0400 && c <= 0x040F) return c + 0x50;
    if (c >= 0xFF21 && c <= 0xFF3A) return c + 0x20;
    return 0;
}

constexpr Element ElementOf(char32_t c) {
    if (c < 0x80) return kAsciiElements.elements[c];
    if (c >= kFirstAccented && c < kEndAccented && kBaseLetters[c - kFirstAccented] != '.')
        return LetterElement(kBaseLetters[c - kFirstAccented], AccentOf(c));
    const bool symbol =
        c < 0xC0 || c == 0xD7 || c == 0xF7 || (c >= 0x2000 && c < 0x2C00) || (c >= 0x3000 && c < 0x3040);
    if (symbol) return {kSymbols + c};
    const char32_t lower = LowerOf(c);
    return {kCharacters + (lower != 0 ? lower : c), 0, lower != 0};
}

constexpr bool IsMinor(char c) {
    return c == '-' || c == '\'';
}

// The table of the single pass over two ASCII texts: how many characters have a smaller base. Weight 0: compare by
// elements.
struct AsciiTable {
    uint8_t weight[256]{};
};
constexpr AsciiTable kAscii = [] {
    AsciiTable table;
    for (unsigned c = 0; c < 0x80; ++c) {
        if (IsMinor(static_cast<char>(c))) continue;
        table.weight[c] = 1;
        for (unsigned other = 0; c > 0 && other < 0x80; ++other)
            if (other == 0 || kAsciiElements.elements[other].base < kAsciiElements.elements[c].base) ++table.weight[c];
    }
    return table;
}();

constexpr int kUndecided = 2;

// -1, 0 or 1, or kUndecided at a character that the table does not cover.
int CompareAscii(const unsigned char* a, const unsigned char* b, bool withCase) {
    int byCase = 0;
    for (;; ++a, ++b) {
        const uint8_t weightA = kAscii.weight[*a];
        const uint8_t weightB = kAscii.weight[*b];
        if (weightA == 0 || weightB == 0) return kUndecided;
        if (weightA != weightB) return weightA < weightB ? -1 : 1;
        if (*a == 0) return withCase ? byCase : 0;
        // Letters that differ only in case: the small one has the greater byte and comes first.
        if (*a != *b && byCase == 0) byCase = *a > *b ? -1 : 1;
    }
}

enum class Minor { Skipped, Kept };

// The elements of a text, one by one, with an empty one at the end.
class Elements {
public:
    Elements(string_view text, Minor minor) : m_text(text), m_minor(minor) {}

    Element Next() {
        while (m_at < m_text.size()) {
            const auto* bytes = reinterpret_cast<const unsigned char*>(m_text.data()) + m_at;
            const DecodedChar next = DecodeChar(m_page, bytes, m_text.size() - m_at);
            m_at += next.length;
            // An invalid byte is an element of its own, after all characters.
            if (!next.valid) return {kInvalid + bytes[0], next.length == 2 ? bytes[1] : 0U};
            const bool minor = next.character == U'-' || next.character == U'\'';
            if (!minor) return ElementOf(next.character);
            if (m_minor == Minor::Kept) return {kMinor + next.character};
        }
        return {};
    }

private:
    const CodePage& m_page = AnsiCodePage();
    string_view m_text;
    Minor m_minor;
    size_t m_at = 0;
};

int Sign(unsigned a, unsigned b) {
    return static_cast<int>(a > b) - static_cast<int>(a < b);
}

struct ElementOrder {
    int byBase = 0;
    int byAccent = 0;
    int byCase = 0;
};

ElementOrder CompareElements(string_view a, string_view b, Minor minor) {
    Elements elementsA(a, minor);
    Elements elementsB(b, minor);
    ElementOrder order;
    for (;;) {
        const Element elementA = elementsA.Next();
        const Element elementB = elementsB.Next();
        order.byBase = Sign(elementA.base, elementB.base);
        if (order.byBase != 0 || elementA.base == 0) return order;
        if (order.byAccent == 0) order.byAccent = Sign(elementA.accent, elementB.accent);
        if (order.byCase == 0) order.byCase = Sign(elementA.upper, elementB.upper);
    }
}

// The bytes unchanged. No trail byte of a double-byte character is a hyphen or an apostrophe.
int CompareBytes(string_view a, string_view b) {
    const auto rank = [](char c) { return static_cast<unsigned char>(c) + (IsMinor(c) ? 0x100U : 0U); };
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        if (a[i] != b[i]) return Sign(rank(a[i]), rank(b[i]));
    return static_cast<int>(a.size() > b.size()) - static_cast<int>(a.size() < b.size());
}

int CompareByElements(string_view a, string_view b, bool withCase) {
    const ElementOrder order = CompareElements(a, b, Minor::Skipped);
    if (order.byBase != 0) return order.byBase;
    if (order.byAccent != 0) return order.byAccent;
    if (!withCase) return CompareElements(a, b, Minor::Kept).byBase;
    if (order.byCase != 0) return order.byCase;
    return CompareBytes(a, b);
}

int Compare(LPCSTR string1, LPCSTR string2, bool withCase) {
    if (string1 == nullptr || string2 == nullptr)
        return static_cast<int>(string1 != nullptr) - static_cast<int>(string2 != nullptr);
    const int result = CompareAscii(reinterpret_cast<const unsigned char*>(string1),
                                    reinterpret_cast<const unsigned char*>(string2), withCase);
    return result != kUndecided ? result : CompareByElements(string1, string2, withCase);
}

} // namespace
} // namespace oriel

using namespace oriel;

int WINAPI lstrcmpA(LPCSTR string1, LPCSTR string2) {
    return Compare(string1, string2, true);
}

int WINAPI lstrcmpiA(LPCSTR string1, LPCSTR string2) {
    return Compare(string1, string2, false);
}

// Reads .reg text. All of it becomes a list of changes, which is then applied as one. No state.
#include "base/call.h"
#include "registry/changes.h"
#include "registry/root.h"
#include "text/names.h"

#include <algorithm>
#include <winnls.h>
#include <winreg_text.h>

namespace oriel {
namespace {

constexpr std::string_view kAnsiHeader = "REGEDIT4";
constexpr std::string_view kUnicodeHeader = "Windows Registry Editor Version 5.00";

bool IsWholeText(std::u16string_view wide) {
    for (size_t at = 0; at < wide.size(); ++at) {
        if ((wide[at] & 0xF800) != 0xD800) continue;
        const bool isPair = wide[at] < 0xDC00 && at + 1 < wide.size() && (wide[at + 1] & 0xFC00) == 0xDC00;
        if (!isPair) return false;
        ++at;
    }
    return true;
}

// To the ANSI code page. False when a character is invalid or not in it: nothing is replaced by "?".
bool WideToAnsi(std::u16string_view wide, std::string* ansi) {
    ansi->clear();
    if (wide.empty()) return true;
    if (!IsWholeText(wide)) return false;
    constexpr size_t kLongestCharacter = 3; // bytes in UTF-8 for one unit of UTF-16
    ansi->resize(wide.size() * kLongestCharacter);
    BOOL lost = FALSE;
    // UTF-8 has all characters; with it the system refuses to be asked.
    const bool hasAll = GetACP() == CP_UTF8;
    const int length =
        WideCharToMultiByte(CP_ACP, hasAll ? 0 : WC_NO_BEST_FIT_CHARS, wide.data(), static_cast<int>(wide.size()),
                            ansi->data(), static_cast<int>(ansi->size()), nullptr, hasAll ? nullptr : &lost);
    ansi->resize(static_cast<size_t>(length));
    return length > 0 && !lost;
}

bool Utf8ToAnsiWhole(std::string_view utf8, std::string* ansi) {
    std::u16string wide(utf8.size(), u'\0');
    if (!utf8.empty()) {
        const int length =
            MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), static_cast<int>(utf8.size()), wide.data(),
                                static_cast<int>(wide.size()));
        if (length == 0) return false;
        wide.resize(static_cast<size_t>(length));
    }
    return WideToAnsi(wide, ansi);
}

bool Utf16BytesToAnsi(std::string_view bytes, std::string* ansi) {
    if (bytes.size() % 2 != 0) return false;
    std::u16string wide(bytes.size() / 2, u'\0');
    bytes.copy(reinterpret_cast<char*>(wide.data()), bytes.size());
    return WideToAnsi(wide, ansi);
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The changes of a text, and the line of each.
struct Import {
    std::vector<RegistryChange> changes;
    std::vector<DWORD> lines;
};

// A parser from the start to the end of the text. Each function returns whether it found its element; m_line is then
// the line after it, otherwise the line with the error.
class TextReader {
public:
    explicit TextReader(std::string_view text) : m_text(text) {}

    bool ReadAll(Import* import);
    DWORD Line() const { return m_line; }

private:
    bool AtEnd() const { return m_at >= m_text.size(); }
    char Peek() const { return AtEnd() ? '\0' : m_text[m_at]; }
    bool Take(char c) {
        if (Peek() != c || AtEnd()) return false;
        ++m_at;
        return true;
    }
    bool TakeWord(std::string_view word);
    void SkipBlanks();
    void SkipLinesAndComments();
    bool TakeLineEnd();
    bool ReadHeader();
    bool ReadKey(RegistryChange* change);
    bool ReadValue(RegistryChange* change);
    bool ReadQuoted(std::string* text);
    bool ReadNumber(size_t digits, DWORD* number);
    bool ReadBytes(std::string* bytes);
    bool ReadHexData(RegistryChange* change);
    bool Decode(std::string_view from, std::string* text) const;

    std::string_view m_text;
    size_t m_at = 0;
    DWORD m_line = 1;
    bool m_unicode = false;
    bool m_inKey = false;
    Root m_root = Root::Machine;
    std::string m_path;
};

bool TextReader::Decode(std::string_view from, std::string* text) const {
    if (m_unicode) return Utf8ToAnsiWhole(from, text);
    *text = from;
    return true;
}

// Ignores case.
bool TextReader::TakeWord(std::string_view word) {
    const std::string_view there = m_text.substr(m_at, word.size());
    if (there.size() != word.size()) return false;
    for (size_t at = 0; at < word.size(); ++at)
        if ((there[at] | 0x20) != (word[at] | 0x20)) return false;
    m_at += word.size();
    return true;
}

void TextReader::SkipBlanks() {
    while (Peek() == ' ' || Peek() == '\t')
        ++m_at;
}

// Skips blanks, a comment, and the end of the line or text.
bool TextReader::TakeLineEnd() {
    SkipBlanks();
    if (Peek() == ';')
        while (!AtEnd() && Peek() != '\n')
            ++m_at;
    Take('\r');
    if (AtEnd()) return true;
    if (!Take('\n')) return false;
    ++m_line;
    return true;
}

void TextReader::SkipLinesAndComments() {
    size_t before = 0;
    do {
        before = m_at;
        SkipBlanks();
        if (Peek() == ';' || Peek() == '\r' || Peek() == '\n') TakeLineEnd();
    } while (m_at != before);
}

bool TextReader::ReadHeader() {
    // A byte order mark is allowed.
    if (m_text.substr(0, 3) == "\xef\xbb\xbf") m_at = 3;
    m_unicode = m_text.substr(m_at, kUnicodeHeader.size()) == kUnicodeHeader;
    if (!m_unicode && m_text.substr(m_at, kAnsiHeader.size()) != kAnsiHeader) return false;
    m_at += m_unicode ? kUnicodeHeader.size() : kAnsiHeader.size();
    return TakeLineEnd();
}

// "[root\path]" or "[-root\path]". The name of a key may contain brackets, so the last one of the line ends the path.
bool TextReader::ReadKey(RegistryChange* change) {
    std::string_view line = m_text.substr(m_at, m_text.find('\n', m_at) - m_at);
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r'))
        line.remove_suffix(1);
    if (line.size() < 2 || line.back() != ']') return false;
    m_at += line.size();
    std::string whole;
    if (!Decode(line.substr(1, line.size() - 2), &whole)) return false;
    const bool removal = whole.starts_with('-');
    if (removal) whole.erase(0, 1);
    const size_t rootLength = std::min(whole.find('\\'), whole.size());
    const std::string rootName = FoldName(std::string_view(whole).substr(0, rootLength));
    if (rootName == "HKEY_LOCAL_MACHINE" || rootName == "HKLM")
        m_root = Root::Machine;
    else if (rootName == "HKEY_CURRENT_USER" || rootName == "HKCU")
        m_root = Root::User;
    else
        return false;
    m_path = rootLength < whole.size() ? whole.substr(rootLength + 1) : std::string();
    // Values may follow only a key that is not deleted.
    m_inKey = !removal;
    *change = {removal ? RegistryChange::kDeleteTree : RegistryChange::kMakeKey, m_root, m_path};
    return true;
}

// Quoted text, which may span lines.
bool TextReader::ReadQuoted(std::string* text) {
    if (!Take('"')) return false;
    const DWORD begin = m_line;
    std::string raw;
    while (!AtEnd()) {
        // In UTF-8, no byte of a longer character looks like one of these.
        const size_t length = m_unicode ? 1 : CharacterLength(m_text, m_at);
        if (length == 1) {
            if (Take('"')) return Decode(raw, text);
            if (Peek() == '\0') return false;
            if (Peek() == '\n') ++m_line;
            if (Take('\\') && Peek() != '\\' && Peek() != '"') return false;
        }
        raw += m_text.substr(m_at, length);
        m_at += length;
    }
    // The end of the quotation is missing: the error is where it began.
    m_line = begin;
    return false;
}

bool TextReader::ReadNumber(size_t digits, DWORD* number) {
    const size_t begin = m_at;
    *number = 0;
    while (HexDigit(Peek()) >= 0)
        *number = *number << 4 | static_cast<DWORD>(HexDigit(m_text[m_at++]));
    return m_at > begin && m_at - begin <= digits;
}

// Bytes with commas between them. A backslash at the end of a line continues in the next.
bool TextReader::ReadBytes(std::string* bytes) {
    for (bool first = true;; first = false) {
        SkipBlanks();
        while (Take('\\')) {
            if (!TakeLineEnd()) return false;
            SkipBlanks();
        }
        DWORD byte = 0;
        if (HexDigit(Peek()) < 0) return first;
        if (!ReadNumber(2, &byte)) return false;
        *bytes += static_cast<char>(byte);
        SkipBlanks();
        if (!Take(',')) return true;
    }
}

bool TextReader::ReadHexData(RegistryChange* change) {
    change->type = REG_BINARY;
    if (Take('(') && !(ReadNumber(8, &change->type) && Take(')'))) return false;
    if (!Take(':')) return false;
    std::string bytes;
    if (!ReadBytes(&bytes)) return false;
    const bool isText = change->type == REG_SZ || change->type == REG_EXPAND_SZ || change->type == REG_MULTI_SZ;
    // In version 5, hexadecimal bytes of a text are UTF-16.
    if (m_unicode && isText) return Utf16BytesToAnsi(bytes, &change->data);
    change->data = bytes;
    return true;
}

bool TextReader::ReadValue(RegistryChange* change) {
    *change = {RegistryChange::kSetValue, m_root, m_path};
    if (!m_inKey || (!Take('@') && !ReadQuoted(&change->name))) return false;
    SkipBlanks();
    if (!Take('=')) return false;
    SkipBlanks();
    if (Peek() == '"') {
        change->type = REG_SZ;
        std::string text;
        if (!ReadQuoted(&text)) return false;
        change->data = TextData(text);
    } else if (TakeWord("dword:")) {
        change->type = REG_DWORD;
        DWORD number = 0;
        if (!ReadNumber(8, &number)) return false;
        change->data = DwordData(number);
    } else if (Take('-')) {
        change->kind = RegistryChange::kDeleteValue;
    } else if (!TakeWord("hex") || !ReadHexData(change)) {
        return false;
    }
    return TakeLineEnd();
}

bool TextReader::ReadAll(Import* import) {
    if (!ReadHeader()) return false;
    for (;;) {
        SkipLinesAndComments();
        if (AtEnd()) return true;
        const DWORD line = m_line;
        RegistryChange change{};
        if (Peek() == '[' ? !ReadKey(&change) || !TakeLineEnd() : !ReadValue(&change)) return false;
        import->changes.push_back(std::move(change));
        import->lines.push_back(line);
    }
}

LSTATUS ImportText(std::string_view text, DWORD* line) {
    std::string converted;
    if (text.substr(0, 2) == "\xff\xfe") {
        // UTF-16, as Windows writes files.
        std::u16string wide(text.size() / 2 - 1, u'\0');
        text.copy(reinterpret_cast<char*>(wide.data()), wide.size() * 2, 2);
        converted.resize(wide.size() * 3);
        const int length = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), converted.data(),
                                               static_cast<int>(converted.size()), nullptr, nullptr);
        converted.resize(static_cast<size_t>(length));
        text = converted;
    }
    Import import;
    TextReader reader(text);
    if (!reader.ReadAll(&import)) {
        *line = reader.Line();
        return ERROR_BAD_FORMAT;
    }
    size_t failed = import.changes.size();
    const LSTATUS error = ApplyChanges(import.changes, &failed);
    // An error of the store has no line.
    if (failed == import.changes.size()) return error;
    *line = import.lines[failed];
    return ERROR_BAD_FORMAT;
}

} // namespace
} // namespace oriel

using namespace oriel;

LSTATUS WINAPI RegImportTextA(const char* text, SIZE_T length, LPDWORD errorLine) {
    return CodeCall([&]() -> LSTATUS {
        // Limits the memory of one list of changes.
        constexpr SIZE_T kLongestText = 256 << 20;
        if (text == nullptr || length > kLongestText) return ERROR_INVALID_PARAMETER;
        DWORD line = 0;
        const LSTATUS error = ImportText({text, length}, &line);
        if (errorLine != nullptr) *errorLine = line;
        return error;
    });
}

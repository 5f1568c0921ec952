// Builds and keeps the tables of code pages. State: a list of tables that only grows; a thread links its table with one
// compare-and-exchange, and drops it when another thread was faster. The ANSI code page is determined once per process,
// on first use.
#include "text/code_page.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <iconv.h>
#include <memory>
#include <new>
#include <winnls.h>

namespace oriel {
namespace {

std::atomic<const CodePage*> g_codePages{nullptr};

struct Iconv {
    iconv_t descriptor;

    Iconv(const char* to, const char* from) : descriptor(iconv_open(to, from)) {}
    ~Iconv() {
        if (Open()) iconv_close(descriptor);
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    bool Open() const { return descriptor != reinterpret_cast<iconv_t>(-1); }
    // Converts the whole input. Returns the bytes written; 0 on failure, with errno EINVAL for an incomplete character.
    size_t Convert(const void* input, size_t inputSize, void* output, size_t outputSize) {
        iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
        errno = 0;
        char* in = const_cast<char*>(static_cast<const char*>(input));
        char* out = static_cast<char*>(output);
        size_t left = outputSize;
        // A positive result counts characters that were replaced by similar ones; a table must not have these.
        const size_t result = iconv(descriptor, &in, &inputSize, &out, &left);
        return result == 0 && inputSize == 0 ? outputSize - left : 0;
    }
};

// Host byte order, without a byte order mark.
constexpr const char* kUtf16 = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? "UTF-16LE" : "UTF-16BE";

// 1252 and UTF-8 always exist, so that a process without gconv modules or memory has its code page.
constexpr char16_t kWesternUpper[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

struct WesternRows {
    static constexpr unsigned kHighBytes[5] = {0x00, 0x01, 0x02, 0x20, 0x21};
    uint16_t codes[5][256]{};
};

constexpr char16_t WesternChar(unsigned byte) {
    return byte >= 0x80 && byte < 0xA0 ? kWesternUpper[byte - 0x80] : static_cast<char16_t>(byte);
}

constexpr WesternRows kWesternRows = [] {
    WesternRows rows;
    for (unsigned byte = 0; byte < 256; ++byte)
        for (unsigned row = 0; row < 5; ++row)
            if (WesternChar(byte) >> 8 == WesternRows::kHighBytes[row])
                rows.codes[row][WesternChar(byte) & 0xFF] = static_cast<uint16_t>(byte);
    return rows;
}();

constexpr CodePage kWestern = [] {
    CodePage page;
    page.number = kWesternCodePage;
    for (unsigned byte = 0; byte < 256; ++byte)
        page.single[byte] = WesternChar(byte);
    for (unsigned row = 0; row < 5; ++row)
        page.encode[WesternRows::kHighBytes[row]] = kWesternRows.codes[row];
    return page;
}();

constexpr CodePage kUtf8 = [] {
    CodePage page;
    page.number = 65001;
    page.utf8 = true;
    page.undefinedChar = kReplacement;
    return page;
}();

char16_t DecodeBy(Iconv& decoder, const unsigned char* bytes, size_t size) {
    char16_t characters[4];
    return decoder.Convert(bytes, size, characters, sizeof characters) == 2 ? characters[0] : kUndefined;
}

// False when the encoding has longer characters or shift states.
bool FillFromIconv(CodePage& page, Iconv& decoder) {
    for (unsigned lead = 0; lead < 256; ++lead) {
        unsigned char bytes[2] = {static_cast<unsigned char>(lead), 0};
        page.single[lead] = DecodeBy(decoder, bytes, 1);
        if (page.single[lead] != kUndefined) continue;
        if (errno != EINVAL) {
            // Windows reads the unused bytes of this range as the control characters of the same number.
            if (lead >= 0x80 && lead < 0xA0) page.single[lead] = static_cast<char16_t>(lead);
            continue;
        }
        if (lead < 0x80) return false;
        auto* trails = new char16_t[256];
        page.pairs[lead] = trails;
        page.doubleByte = true;
        for (unsigned trail = 0; trail < 256; ++trail) {
            bytes[1] = static_cast<unsigned char>(trail);
            trails[trail] = trail == 0 ? kUndefined : DecodeBy(decoder, bytes, 2);
            if (trail != 0 && trails[trail] == kUndefined && errno == EINVAL) return false;
        }
    }
    return true;
}

// The reverse tables. Where two codes mean one character, iconv says which is the usual one.
void AddCode(CodePage& page, char16_t character, uint16_t code, Iconv& encoder) {
    if (character == kUndefined) return;
    auto*& row = const_cast<uint16_t*&>(page.encode[character >> 8]);
    if (row == nullptr) row = new uint16_t[256]();
    uint16_t& entry = row[character & 0xFF];
    if (entry == 0) {
        entry = code;
        return;
    }
    unsigned char bytes[4];
    const size_t count = encoder.Convert(&character, sizeof character, bytes, sizeof bytes);
    if (count == 1) entry = bytes[0];
    if (count == 2) entry = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

void FillEncode(CodePage& page, Iconv& encoder) {
    for (unsigned lead = 0; lead < 256; ++lead) {
        AddCode(page, page.single[lead], static_cast<uint16_t>(lead), encoder);
        if (page.pairs[lead] == nullptr) continue;
        for (unsigned trail = 1; trail < 256; ++trail)
            AddCode(page, page.pairs[lead][trail], static_cast<uint16_t>(lead << 8 | trail), encoder);
    }
    for (unsigned byte = 0; byte < 0x80; ++byte)
        if (page.single[byte] != byte) page.ascii = false;
}

struct DropCodePage {
    void operator()(CodePage* page) const {
        for (unsigned i = 0; i < 256; ++i) {
            delete[] page->pairs[i];
            delete[] page->encode[i];
        }
        delete page;
    }
};

using CodePageOwner = std::unique_ptr<CodePage, DropCodePage>;

CodePageOwner BuildCodePage(UINT number) {
    CodePageOwner page(new CodePage);
    page->number = number;
    char name[16];
    std::snprintf(name, sizeof name, "CP%u", number);
    Iconv decoder(kUtf16, name);
    Iconv encoder(name, kUtf16);
    if (!decoder.Open() || !encoder.Open() || !FillFromIconv(*page, decoder)) return nullptr;
    FillEncode(*page, encoder);
    if (number == 932) page->undefinedChar = u'\u30FB';
    return page;
}

} // namespace

const CodePage* FindCodePage(UINT number) {
    if (number == 0) return &AnsiCodePage();
    if (number == kWestern.number) return &kWestern;
    if (number == kUtf8.number) return &kUtf8;
    const CodePage* newest = g_codePages.load(std::memory_order_acquire);
    for (const CodePage* page = newest; page != nullptr; page = page->next)
        if (page->number == number) return page;
    try {
        CodePageOwner built = BuildCodePage(number);
        if (built == nullptr) return nullptr;
        for (;;) {
            built->next = newest;
            if (g_codePages.compare_exchange_strong(newest, built.get(), std::memory_order_acq_rel))
                return built.release();
            for (const CodePage* page = newest; page != built->next; page = page->next)
                if (page->number == number) return page;
        }
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

DecodedChar DecodePair(const CodePage& page, const unsigned char* text, size_t size) {
    if (size < 2 || text[1] == 0) return {page.undefinedChar, 1, false};
    const char16_t character = page.pairs[text[0]][text[1]];
    if (character != kUndefined) return {character, 2, true};
    return {page.undefinedChar, 2, false};
}

// Unicode, table 3-7. An ill-formed sequence ends before the first byte that cannot continue it.
DecodedChar DecodeUtf8(const unsigned char* text, size_t size) {
    const unsigned char first = text[0];
    if (first < 0x80) return {first, 1, true};
    if (first < 0xC2 || first > 0xF4) return {kReplacement, 1, false};
    const unsigned length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    unsigned char lowest = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    unsigned char highest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    char32_t character = first & (0x7FU >> length);
    for (unsigned i = 1; i < length; ++i) {
        if (i >= size || text[i] < lowest || text[i] > highest) return {kReplacement, i, false};
        character = character << 6 | (text[i] & 0x3FU);
        lowest = 0x80;
        highest = 0xBF;
    }
    return {character, length, true};
}

unsigned EncodeUtf8(char32_t character, char (&bytes)[4]) {
    const auto tail = [character](unsigned shift) { return static_cast<char>(0x80 | ((character >> shift) & 0x3F)); };
    if (character < 0x80) {
        bytes[0] = static_cast<char>(character);
        return 1;
    }
    if (character < 0x800) {
        bytes[0] = static_cast<char>(0xC0 | character >> 6);
        bytes[1] = tail(0);
        return 2;
    }
    if (character < 0x10000) {
        bytes[0] = static_cast<char>(0xE0 | character >> 12);
        bytes[1] = tail(6);
        bytes[2] = tail(0);
        return 3;
    }
    bytes[0] = static_cast<char>(0xF0 | character >> 18);
    bytes[1] = tail(12);
    bytes[2] = tail(6);
    bytes[3] = tail(0);
    return 4;
}

unsigned EncodeChar(const CodePage& page, char32_t character, char (&bytes)[4]) {
    if (page.utf8) return EncodeUtf8(character, bytes);
    if (character > 0xFFFF) return 0;
    const uint16_t* row = page.encode[character >> 8];
    const uint16_t code = row == nullptr ? 0 : row[character & 0xFF];
    if (code == 0) {
        bytes[0] = 0;
        return character == 0 ? 1 : 0;
    }
    if (code < 0x100) {
        bytes[0] = static_cast<char>(code);
        return 1;
    }
    bytes[0] = static_cast<char>(code >> 8);
    bytes[1] = static_cast<char>(code & 0xFF);
    return 2;
}

namespace {

std::atomic<const CodePage*> g_ansiCodePage{nullptr};

const CodePage& SettleAnsiCodePage() {
    const UINT number = AnsiCodePageSetting();
    const CodePage* page = number != 0 ? FindCodePage(number) : nullptr;
    if (page == nullptr) page = FindCodePage(kWesternCodePage);
    const CodePage* settled = nullptr;
    return g_ansiCodePage.compare_exchange_strong(settled, page) ? *page : *settled;
}

} // namespace

const CodePage& AnsiCodePage() {
    const CodePage* page = g_ansiCodePage.load(std::memory_order_acquire);
    if (page != nullptr) [[likely]]
        return *page;
    // The registry may itself ask for the code page while it is opened; its own names are ASCII then.
    static thread_local bool settling = false;
    if (settling) return *FindCodePage(kWesternCodePage);
    settling = true;
    const CodePage& settled = SettleAnsiCodePage();
    settling = false;
    return settled;
}

} // namespace oriel

using namespace oriel;

UINT WINAPI GetACP(void) {
    return AnsiCodePage().number;
}

BOOL WINAPI IsDBCSLeadByte(BYTE testChar) {
    // No ANSI code page has a lead byte that is ASCII.
    return testChar >= 0x80 && AnsiCodePage().pairs[testChar] != nullptr ? TRUE : FALSE;
}

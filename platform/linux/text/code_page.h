// Code pages as tables, for conversion, order and file names.
//
// A table is built from iconv ("CP<number>") on first use and kept for the life of the process. 1252 and UTF-8 need no
// iconv. State: code_page.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <windef.h>

namespace oriel {

constexpr UINT kWesternCodePage = 1252;
constexpr char16_t kUndefined = 0xFFFF; // in the tables: no character
constexpr char16_t kReplacement = 0xFFFD;

struct CodePage {
    UINT number = 0;
    bool utf8 = false;             // the tables are then empty
    bool ascii = true;             // bytes 0x00 to 0x7F are ASCII
    bool doubleByte = false;       // has lead bytes
    char16_t undefinedChar = u'?'; // replaces an undefined double-byte character
    char16_t single[256]{};        // by byte; kUndefined for lead bytes too
    const char16_t* pairs[256]{};  // by lead byte: 256 characters by trail byte; null when not a lead byte
    // By the high byte of the character: 256 codes by low byte, each a byte or lead << 8 | trail; 0 for none.
    const uint16_t* encode[256]{};
    const CodePage* next = nullptr;
};

// Null when the number is not a single-byte or double-byte code page (or UTF-8) known to the system. 0 is the ANSI code
// page.
const CodePage* FindCodePage(UINT number);
const CodePage& AnsiCodePage();
// The setting of this machine, 0 when there is none. Defined above this folder, because it may read the registry
// (system/settings.cpp).
UINT AnsiCodePageSetting();

struct DecodedChar {
    char32_t character; // kReplacement or undefinedChar when invalid
    unsigned length;    // bytes, 1 to 4
    bool valid;
};

// The character at the start of a text of at least one byte. A lead byte without a trail byte (at the end, or before a
// NUL) is invalid, with length 1.
DecodedChar DecodeUtf8(const unsigned char* text, size_t size);
DecodedChar DecodePair(const CodePage& page, const unsigned char* text, size_t size);

inline DecodedChar DecodeChar(const CodePage& page, const unsigned char* text, size_t size) {
    if (page.utf8) return DecodeUtf8(text, size);
    if (page.pairs[*text] != nullptr) return DecodePair(page, text, size);
    const char16_t character = page.single[*text];
    if (character != kUndefined) return {character, 1, true};
    return {kReplacement, 1, false};
}

// Encodes a character in at most 4 bytes; returns their number, 0 when the code page does not have it.
unsigned EncodeUtf8(char32_t character, char (&bytes)[4]);
unsigned EncodeChar(const CodePage& page, char32_t character, char (&bytes)[4]);

} // namespace oriel

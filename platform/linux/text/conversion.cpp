// MultiByteToWideChar and WideCharToMultiByte. ASCII is converted eight characters at a time, the rest by the tables of
// the code page. No state.
#include "base/call.h"
#include "text/code_page.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <winnls.h>

namespace oriel {
namespace {

// The output: a buffer, or none when only the size is asked for.
template <typename Unit>
struct Output {
    Unit* buffer;
    size_t capacity;
    size_t count = 0;

    Output(Unit* target, int length)
        : buffer(target), capacity(length > 0 ? static_cast<size_t>(length) : std::numeric_limits<int>::max()) {
        if (length == 0) buffer = nullptr;
    }
    size_t Left() const { return capacity - count; }
    bool Put(const Unit* units, size_t number) {
        if (number > Left()) return false;
        if (buffer != nullptr) std::copy_n(units, number, buffer + count);
        count += number;
        return true;
    }
};

// Copies the leading ASCII of the source as far as it fits; returns the number of characters.
template <typename From, typename To>
size_t CopyAscii(const From* source, size_t size, Output<To>& output) {
    constexpr size_t kStep = 8;
    const size_t most = std::min(size, output.Left());
    const auto isAscii = [](From unit) { return static_cast<std::make_unsigned_t<From>>(unit) < 0x80; };
    size_t done = 0;
    while (done + kStep <= most) {
        unsigned all = 0;
        for (size_t i = 0; i < kStep; ++i)
            all |= static_cast<std::make_unsigned_t<From>>(source[done + i]);
        if (all >= 0x80) break;
        if (output.buffer != nullptr)
            for (size_t i = 0; i < kStep; ++i)
                output.buffer[output.count + done + i] = static_cast<To>(source[done + i]);
        done += kStep;
    }
    for (; done < most && isAscii(source[done]); ++done)
        if (output.buffer != nullptr) output.buffer[output.count + done] = static_cast<To>(source[done]);
    output.count += done;
    return done;
}

// The checks of both directions. 0, or the error.
DWORD CheckBuffers(const void* source, int sourceLength, size_t sourceUnit, const void* target, int targetLength,
                   size_t targetUnit) {
    if (source == nullptr || sourceLength == 0 || sourceLength < -1) return ERROR_INVALID_PARAMETER;
    if (targetLength < 0 || (target == nullptr && targetLength != 0)) return ERROR_INVALID_PARAMETER;
    if (source == target) return ERROR_INVALID_PARAMETER;
    if (sourceLength < 0 || targetLength == 0) return 0;
    const auto from = reinterpret_cast<uintptr_t>(source);
    const auto to = reinterpret_cast<uintptr_t>(target);
    const bool apart = from + static_cast<size_t>(sourceLength) * sourceUnit <= to ||
                       to + static_cast<size_t>(targetLength) * targetUnit <= from;
    return apart ? 0 : ERROR_INVALID_PARAMETER;
}

bool IsHighSurrogate(char16_t unit) {
    return (unit & 0xFC00) == 0xD800;
}
bool IsLowSurrogate(char16_t unit) {
    return (unit & 0xFC00) == 0xDC00;
}

} // namespace
} // namespace oriel

using namespace oriel;

int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR multiByte, int multiByteLength, LPWSTR wide,
                               int wideLength) {
    const DWORD error = CheckBuffers(multiByte, multiByteLength, sizeof(char), wide, wideLength, sizeof(WCHAR));
    if (error != 0) return Fail<int>(error);
    const CodePage* page = FindCodePage(codePage);
    if (page == nullptr) return Fail<int>(ERROR_INVALID_PARAMETER);
    const DWORD known = page->utf8 ? MB_ERR_INVALID_CHARS : MB_PRECOMPOSED | MB_ERR_INVALID_CHARS;
    if ((flags & ~known) != 0) return Fail<int>(ERROR_INVALID_FLAGS);

    const auto* source = reinterpret_cast<const unsigned char*>(multiByte);
    const size_t size = multiByteLength < 0 ? std::strlen(multiByte) + 1 : static_cast<size_t>(multiByteLength);
    Output<WCHAR> output(wide, wideLength);
    for (size_t at = 0; at < size;) {
        if (page->ascii) {
            at += CopyAscii(multiByte + at, size - at, output);
            if (at == size) break;
        }
        const DecodedChar next = DecodeChar(*page, source + at, size - at);
        if (!next.valid && (flags & MB_ERR_INVALID_CHARS) != 0) return Fail<int>(ERROR_NO_UNICODE_TRANSLATION);
        WCHAR units[2] = {static_cast<WCHAR>(next.character)};
        size_t number = 1;
        if (next.character > 0xFFFF) {
            units[0] = static_cast<WCHAR>(0xD7C0 + (next.character >> 10));
            units[1] = static_cast<WCHAR>(0xDC00 | (next.character & 0x3FF));
            number = 2;
        }
        if (!output.Put(units, number)) return Fail<int>(ERROR_INSUFFICIENT_BUFFER);
        at += next.length;
    }
    return static_cast<int>(output.count);
}

int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideLength, LPSTR multiByte,
                               int multiByteLength, LPCSTR defaultChar, LPBOOL usedDefaultChar) {
    const DWORD error = CheckBuffers(wide, wideLength, sizeof(WCHAR), multiByte, multiByteLength, sizeof(char));
    if (error != 0) return Fail<int>(error);
    const CodePage* page = FindCodePage(codePage);
    if (page == nullptr) return Fail<int>(ERROR_INVALID_PARAMETER);
    if (page->utf8 && (defaultChar != nullptr || usedDefaultChar != nullptr)) return Fail<int>(ERROR_INVALID_PARAMETER);
    const DWORD known = page->utf8 ? 0 : WC_DEFAULTCHAR | WC_NO_BEST_FIT_CHARS;
    if ((flags & ~known) != 0) return Fail<int>(ERROR_INVALID_FLAGS);

    const char* replacement = defaultChar != nullptr ? defaultChar : "?";
    const bool longReplacement =
        page->pairs[static_cast<unsigned char>(replacement[0])] != nullptr && replacement[1] != '\0';
    const size_t replacementSize = longReplacement ? 2 : 1;
    const size_t size = wideLength < 0 ? std::char_traits<char16_t>::length(wide) + 1 : static_cast<size_t>(wideLength);
    BOOL used = FALSE;
    Output<char> output(multiByte, multiByteLength);
    for (size_t at = 0; at < size;) {
        if (page->ascii) {
            at += CopyAscii(wide + at, size - at, output);
            if (at == size) break;
        }
        char32_t character = wide[at];
        size_t units = 1;
        if (page->utf8 && IsHighSurrogate(wide[at]) && at + 1 < size && IsLowSurrogate(wide[at + 1])) {
            character = 0x10000 + ((character & 0x3FF) << 10 | (wide[at + 1] & 0x3FF));
            units = 2;
        } else if (page->utf8 && (IsHighSurrogate(wide[at]) || IsLowSurrogate(wide[at]))) {
            character = kReplacement;
        }
        char bytes[4];
        const unsigned length = EncodeChar(*page, character, bytes);
        if (length == 0) used = TRUE;
        const bool fits = length == 0 ? output.Put(replacement, replacementSize) : output.Put(bytes, length);
        if (!fits) return Fail<int>(ERROR_INSUFFICIENT_BUFFER);
        at += units;
    }
    if (usedDefaultChar != nullptr) *usedDefaultChar = used;
    return static_cast<int>(output.count);
}

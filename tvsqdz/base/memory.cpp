// State: g_heap, here.
#include "base/memory.h"

#include <string.h>

HANDLE g_heap;

void* AllocateZeroed(SIZE_T size) {
    return HeapAlloc(g_heap, HEAP_ZERO_MEMORY, size);
}

void FreeBlock(void* block) {
    if (block != nullptr) HeapFree(g_heap, 0, block);
}

char* CopyText(const char* text) {
    const SIZE_T size = strlen(text) + 1;
    char* copy = static_cast<char*>(AllocateZeroed(size));
    if (copy != nullptr) memcpy(copy, text, size);
    return copy;
}

Scratch::Scratch(SIZE_T size) {
    if (size <= kOnStack) {
        memset(m_small, 0, size);
        m_data = m_small;
    } else {
        m_data = static_cast<BYTE*>(AllocateZeroed(size));
    }
}

Scratch::~Scratch() {
    if (m_data != m_small) FreeBlock(m_data);
}

// The guard is the system's own copying between address spaces, used on this process.

namespace {

// The smallest page of the systems we run on: a piece that ends where one of these ends lies within a page of any size.
constexpr SIZE_T kPageSize = 4096;
// Most texts are names: the first piece, and with it the only copy, is no longer than one.
constexpr SIZE_T kFirstPiece = 64;

SIZE_T Smaller(SIZE_T a, SIZE_T b) {
    return a < b ? a : b;
}

// In units of the text's character. A character never straddles pieces: it may straddle pages only when the pointer is
// not aligned to it, and then each piece ends with a whole one.
template <typename Character>
CallerText ReadText(Character* buffer, SIZE_T capacity, const Character* from) {
    SIZE_T length = 0;
    SIZE_T piece = kFirstPiece / sizeof(Character);
    while (length < capacity) {
        const SIZE_T address = reinterpret_cast<ULONG_PTR>(from) + length * sizeof(Character);
        const SIZE_T inPage = (kPageSize - address % kPageSize) / sizeof(Character);
        piece = Smaller(Smaller(piece, capacity - length), inPage > 0 ? inPage : 1);
        if (!CopyFromCaller(buffer + length, reinterpret_cast<const void*>(address), piece * sizeof(Character)))
            return CallerText::Fault;
        for (SIZE_T i = length; i < length + piece; ++i) {
            if (buffer[i] != 0) continue;
            // What lay behind the text is none of anybody's business.
            memset(buffer + i, 0, (length + piece - i) * sizeof(Character));
            return CallerText::Read;
        }
        length += piece;
        piece = capacity;
    }
    return CallerText::TooLong;
}

template <typename Character>
CallerText ReadWholeText(Character* buffer, SIZE_T capacity, const Character* from) {
    const CallerText result = ReadText(buffer, capacity, from);
    if (result == CallerText::TooLong && capacity > 0) buffer[0] = 0;
    return result;
}

// Terminated behind the last character that may be looked at.
template <typename Character>
bool CopyText(Character* buffer, SIZE_T limit, const Character* from) {
    buffer[limit] = 0;
    return ReadText(buffer, limit, from) != CallerText::Fault;
}

} // namespace

bool CopyFromCaller(void* to, const void* from, SIZE_T size) {
    return size == 0 || ReadProcessMemory(GetCurrentProcess(), from, to, size, nullptr) != FALSE;
}

bool CopyToCaller(void* to, const void* from, SIZE_T size) {
    return size == 0 || WriteProcessMemory(GetCurrentProcess(), to, from, size, nullptr) != FALSE;
}

CallerText ReadCallerText(char* buffer, SIZE_T capacity, const char* from) {
    return ReadWholeText(buffer, capacity, from);
}

CallerText ReadCallerText(WCHAR* buffer, SIZE_T capacity, const WCHAR* from) {
    return ReadWholeText(buffer, capacity, from);
}

CallerText ReadCallerName(char* buffer, int capacity, const WCHAR* from) {
    WCHAR wide[kNameSizeMax];
    buffer[0] = '\0';
    const CallerText result = ReadCallerText(wide, static_cast<SIZE_T>(capacity), from);
    if (result != CallerText::Read) return result;
    // What the code page does not have becomes its default character; the flag for that says no more, and UTF-8 refuses
    // it.
    if (WideCharToMultiByte(CP_ACP, 0, wide, -1, buffer, capacity, nullptr, nullptr) != 0) return CallerText::Read;
    buffer[0] = '\0';
    return CallerText::TooLong;
}

bool CopyCallerText(char* buffer, SIZE_T limit, const char* from) {
    return CopyText(buffer, limit, from);
}

bool CopyCallerText(WCHAR* buffer, SIZE_T limit, const WCHAR* from) {
    return CopyText(buffer, limit, from);
}

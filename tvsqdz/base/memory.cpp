// The heap and the fault guard. State: g_heap.
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

// The guard is the system's own copying between address spaces, applied to this process.

namespace {

// The smallest page size of the systems we run on. A piece that ends at a multiple of this size lies within one page
// whatever the page size is.
constexpr SIZE_T kPageSize = 4096;
// Most texts are names; the first piece is no longer than one, and usually the only copy.
constexpr SIZE_T kFirstPiece = 64;

SIZE_T Smaller(SIZE_T a, SIZE_T b) {
    return a < b ? a : b;
}

// In units of a character. A character does not straddle two pieces; it may straddle two pages only when the pointer is
// unaligned, and then each piece still ends with a whole character.
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
            // Bytes behind the text must not leave this function.
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

// Terminated behind the last character that may be read.
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
    // A character that the code page lacks becomes the default character. The flag that reports this adds nothing, and
    // UTF-8 refuses it.
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

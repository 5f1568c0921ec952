// Memory: the library's private heap, and the fault guard for the caller's memory. State: g_heap, in memory.cpp.
#pragma once

#include <windows.h>

// Created at process attach, destroyed at process detach. Every block is zero-filled.
extern HANDLE g_heap;

// Returns null when out of memory.
void* AllocateZeroed(SIZE_T size);
// Null is ignored.
void FreeBlock(void* block);
// A terminated copy of a text; null when out of memory.
char* CopyText(const char* text);

// A block of the heap, freed by the destructor unless Take() was called.
struct HeapBlock {
    HeapBlock() = default;
    explicit HeapBlock(SIZE_T size) : memory(static_cast<BYTE*>(AllocateZeroed(size))) {}
    ~HeapBlock() { FreeBlock(memory); }
    HeapBlock(const HeapBlock&) = delete;
    HeapBlock& operator=(const HeapBlock&) = delete;

    BYTE* Take() {
        BYTE* taken = memory;
        memory = nullptr;
        return taken;
    }

    BYTE* memory = nullptr; // null: out of memory
};

// A text that owns a heap block, as returned by CopyText.
struct OwnedText {
    explicit OwnedText(char* owned) : text(owned) {}
    ~OwnedText() { FreeBlock(text); }
    OwnedText(const OwnedText&) = delete;
    OwnedText& operator=(const OwnedText&) = delete;

    char* text; // may be null
};

// A zero-filled temporary buffer. Small ones are on the stack, so that reading an ordinary value allocates nothing;
// larger ones are on the heap.
class Scratch {
public:
    static constexpr SIZE_T kOnStack = 512;

    explicit Scratch(SIZE_T size);
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    // Null when out of memory.
    BYTE* Data() { return m_data; }

private:
    BYTE* m_data;
    alignas(8) BYTE m_small[kOnStack]; // the first `size` bytes are set
};

// The fault guard. Every access to memory that a caller points to goes through these functions.
//
// The kernel does the copying, so a bad pointer gives an error instead of a fault, and no signal or exception handler
// is installed in the process. Another thread may change caller memory during a call: it is copied in once, the library
// works on the copy, and outputs are written last.

// False when not all bytes could be copied. The destination is then undefined, except that caller memory may hold the
// first part.
bool CopyFromCaller(void* to, const void* from, SIZE_T size);
bool CopyToCaller(void* to, const void* from, SIZE_T size);

enum class CallerText {
    Read,
    Fault,  // cannot be read up to its NUL
    TooLong // does not fit; the buffer holds no text
};

// Copies a text with its NUL. capacity: of the buffer, in bytes or in characters, including the NUL. A page is read
// only once the text is known to reach it.
CallerText ReadCallerText(char* buffer, SIZE_T capacity, const char* from);
CallerText ReadCallerText(WCHAR* buffer, SIZE_T capacity, const WCHAR* from);

// Copies at most `limit` characters of a text that need not be terminated; nothing behind the limit is read. The buffer
// has room for one character more, and its text is always terminated. False on a fault.
bool CopyCallerText(char* buffer, SIZE_T limit, const char* from);
bool CopyCallerText(WCHAR* buffer, SIZE_T limit, const WCHAR* from);

// Converts a wide name to the ANSI code page. A name that does not fit is TooLong rather than cut, because a cut name
// would be that of another printer, user or variable. The buffer then holds no text.
inline constexpr SIZE_T kNameSizeMax = 260;
CallerText ReadCallerName(char* buffer, int capacity, const WCHAR* from);
template <SIZE_T size>
CallerText ReadCallerName(char (&buffer)[size], const WCHAR* from) {
    static_assert(size <= kNameSizeMax);
    return ReadCallerName(buffer, static_cast<int>(size), from);
}

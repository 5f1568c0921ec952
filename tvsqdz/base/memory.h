// The library's memory: one private heap, from which every block comes zero-filled, and the guards that give blocks
// back.
#pragma once

#include <windows.h>

// Made at process attach, destroyed at process detach.
extern HANDLE g_heap;

// Null when there is no memory.
void* AllocateZeroed(SIZE_T size);
// Null is let pass.
void FreeBlock(void* block);
// A copy of a text, terminated; null when there is no memory.
char* CopyText(const char* text);

// A block of the heap that is freed with the guard unless it is taken out.
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

// A text in a block of the heap, such as CopyText gives.
struct OwnedText {
    explicit OwnedText(char* owned) : text(owned) {}
    ~OwnedText() { FreeBlock(text); }
    OwnedText(const OwnedText&) = delete;
    OwnedText& operator=(const OwnedText&) = delete;

    char* text; // null: there is none
};

// A temporary of the size given, zero-filled: on the stack while it is small, so that reading an ordinary value costs
// no allocation, and from the heap beyond that.
class Scratch {
public:
    static constexpr SIZE_T kOnStack = 512;

    explicit Scratch(SIZE_T size);
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    // Null when there is no memory.
    BYTE* Data() { return m_data; }

private:
    BYTE* m_data;
    alignas(8) BYTE m_small[kOnStack]; // the first `size` bytes are set
};

// The fault guard: every access to memory that a caller points at goes through here.
//
// The kernel is asked to copy, so a bad pointer is an answer and no fault; nothing installs a handler in the process.
// Caller memory may change while it is read: it is copied in once and the copy is worked on; outputs are written last.

// False when not all bytes could be copied. Nothing may then be said of the destination, except that a caller's memory
// may hold a first part.
bool CopyFromCaller(void* to, const void* from, SIZE_T size);
bool CopyToCaller(void* to, const void* from, SIZE_T size);

enum class CallerText {
    Read,
    Fault,  // it cannot be read up to its NUL
    TooLong // it does not fit; the buffer holds no text
};

// Copies a text with its NUL. capacity: of the buffer, in bytes or in characters, NUL included. No byte of a page is
// touched before the text was seen to reach it.
CallerText ReadCallerText(char* buffer, SIZE_T capacity, const char* from);
CallerText ReadCallerText(WCHAR* buffer, SIZE_T capacity, const WCHAR* from);

// Copies a text that may end without a NUL, at the limit: no character from there on is looked at. The buffer has one
// character more than the limit, and what is in it is terminated. False on a fault.
bool CopyCallerText(char* buffer, SIZE_T limit, const char* from);
bool CopyCallerText(WCHAR* buffer, SIZE_T limit, const WCHAR* from);

// A wide name converted to the ANSI code page. One that does not fit is TooLong rather than cut: a cut name means
// another printer, user or variable. The buffer then holds no text.
inline constexpr SIZE_T kNameSizeMax = 260;
CallerText ReadCallerName(char* buffer, int capacity, const WCHAR* from);
template <SIZE_T size>
CallerText ReadCallerName(char (&buffer)[size], const WCHAR* from) {
    static_assert(size <= kNameSizeMax);
    return ReadCallerName(buffer, static_cast<int>(size), from);
}

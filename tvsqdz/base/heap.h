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

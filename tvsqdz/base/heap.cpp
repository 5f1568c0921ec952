// State: g_heap, here.
#include "base/heap.h"

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

#include "arena.h"

#include <memory>
#include <new>
#include <string.h>

using namespace product;

namespace {

// A printer's 60 variables take about 8 KiB: three of these, which leaves little unused.
constexpr SIZE_T kChunkSize = 4096 - 32; // with the allocator's own header within a page
// What would waste a good part of a chunk gets one of its own.
constexpr SIZE_T kLargePiece = 1024;

// The first place from there on that is aligned and has size bytes before the end; null when there is none.
BYTE* Fit(BYTE* from, const BYTE* end, SIZE_T size, SIZE_T alignment) {
    void* place = from;
    size_t room = static_cast<size_t>(end - from);
    return static_cast<BYTE*>(std::align(alignment, size, place, room));
}

} // namespace

Arena::Chunk* Arena::NewChunk(Account& account, SIZE_T size, ServiceStatus* status) {
    if (!Charge(account, kShareMemory, size)) {
        *status = kLimitReached;
        return nullptr;
    }
    void* memory = ::operator new(size, std::nothrow);
    if (!memory) {
        GiveBack(account, kShareMemory, size);
        *status = kOutOfMemory;
        return nullptr;
    }
    memset(memory, 0, size);
    m_chunks = new (memory) Chunk{m_chunks, &account, size};
    return m_chunks;
}

void* Arena::Take(Account& account, SIZE_T size, SIZE_T alignment, ServiceStatus* status) {
    LockHold hold{m_lock};
    if (size >= kLargePiece) {
        const SIZE_T whole = sizeof(Chunk) + alignment + size;
        Chunk* chunk = NewChunk(account, whole, status);
        return chunk ? Fit(reinterpret_cast<BYTE*>(chunk + 1), reinterpret_cast<BYTE*>(chunk) + whole, size, alignment)
                     : nullptr;
    }
    BYTE* piece = Fit(m_at, m_end, size, alignment);
    if (!piece) {
        Chunk* chunk = NewChunk(account, kChunkSize, status);
        if (!chunk) return nullptr;
        m_end = reinterpret_cast<BYTE*>(chunk) + kChunkSize;
        piece = Fit(reinterpret_cast<BYTE*>(chunk + 1), m_end, size, alignment);
    }
    m_at = piece + size;
    return piece;
}

void Arena::Release() {
    LockHold hold{m_lock};
    while (m_chunks) {
        Chunk* chunk = m_chunks;
        m_chunks = chunk->next;
        Account& account = *chunk->account;
        const SIZE_T size = chunk->size;
        ::operator delete(chunk);
        GiveBack(account, kShareMemory, size);
    }
    m_at = m_end = nullptr;
}

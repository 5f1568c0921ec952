#include "arena.h"

#include <new>
#include <string.h>

using namespace dblink;

namespace {

// A printer's 60 variables take about 8 KiB: three of these, which leaves little unused.
constexpr SIZE_T kChunkSize = 4096 - 32; // with the allocator's own header within a page
// What would waste a good part of a chunk gets one of its own.
constexpr SIZE_T kLargePiece = 1024;

BYTE* Aligned(BYTE* place, SIZE_T alignment) {
    return reinterpret_cast<BYTE*>((reinterpret_cast<UINT_PTR>(place) + alignment - 1) & ~(UINT_PTR{alignment} - 1));
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
        Chunk* chunk = NewChunk(account, sizeof(Chunk) + alignment + size, status);
        return chunk ? Aligned(reinterpret_cast<BYTE*>(chunk + 1), alignment) : nullptr;
    }
    BYTE* piece = m_at ? Aligned(m_at, alignment) : nullptr;
    if (!piece || piece > m_end || size > static_cast<SIZE_T>(m_end - piece)) {
        Chunk* chunk = NewChunk(account, kChunkSize, status);
        if (!chunk) return nullptr;
        m_end = reinterpret_cast<BYTE*>(chunk) + kChunkSize;
        piece = Aligned(reinterpret_cast<BYTE*>(chunk + 1), alignment);
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

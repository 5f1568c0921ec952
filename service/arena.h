// Memory of a database: small pieces from shared chunks, never freed one by one, so that a piece costs nothing beside
// its own bytes and a reader without a lock cannot be left behind. Chunks are charged to the user whose call needed
// them.
#pragma once

#include "accounts.h"
#include "product/lock.h"

class Arena {
public:
    Arena() = default;
    ~Arena() { Release(); }
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    // Zeroed bytes, aligned to 8 or 64. Null: *status is kLimitReached or kOutOfMemory.
    void* Take(Account& account, SIZE_T size, SIZE_T alignment, product::ServiceStatus* status);

    // Frees everything and gives the charges back. Nobody may be using a piece.
    void Release();

private:
    struct Chunk {
        Chunk* next;
        Account* account;
        SIZE_T size;
    };
    Chunk* NewChunk(Account& account, SIZE_T size, product::ServiceStatus* status) REQUIRES(m_lock);

    Lock m_lock;
    Chunk* m_chunks GUARDED_BY(m_lock) = nullptr;
    BYTE* m_at GUARDED_BY(m_lock) = nullptr; // the free rest of the chunk in use
    BYTE* m_end GUARDED_BY(m_lock) = nullptr;
};

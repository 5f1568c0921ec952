// Memory of the service: accounts, which charge users for it and for other shares; arenas, which hold it; and names of
// variables, each stored once. State: the list of accounts, the totals, and the table of names, in memory.cpp.
#pragma once

#include "settings.h"

#include "product/lock.h"
#include "product/published_values.h"

#include <atomic>
#include <string_view>

// ---- accounts: one per user, charged before something is made and credited when it is gone; settings.h has the bounds

struct Account {
    Account* next = nullptr;
    DWORD clients = 0; // guarded by the list's lock
    std::atomic<SIZE_T> held[kShareCount] = {};
    std::atomic<bool> hasReserve = false; // the user who runs the service
    char user[64] = {};
};

// The account of a user, whom the run-time names with this text. The caller holds it until LeaveAccount. Null: too many
// users, a text too long, or no memory.
Account* EnterAccount(const char* user);
void LeaveAccount(Account* account);

// False when the amount would exceed the user's bound or the bound of all; then nothing is charged. A quarter of the
// latter is reserved for the user who runs the service, so that others together cannot keep that one out.
bool Charge(Account& account, Share share, SIZE_T amount);
void GiveBack(Account& account, Share share, SIZE_T amount);

// Whether all charges were credited again.
bool AccountsAreBalanced();

// ---- arenas

// Memory of a database: small pieces from shared chunks. Pieces are never freed one by one: a piece costs only its own
// bytes, and a reader without a lock never holds freed memory. A chunk is charged to the user whose call needed it.
class Arena {
public:
    Arena() = default;
    ~Arena() { Release(); }
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    // Zeroed bytes, aligned to 8 or 64. Null: *status is kLimitReached or kOutOfMemory.
    void* Take(Account& account, SIZE_T size, SIZE_T alignment, product::ServiceStatus* status);

    // Frees everything and credits the charges. Nobody may be using a piece.
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

// ---- names of variables, each stored once for all databases: a thousand printers share the same 60. They stay until
// the service ends

struct Name {
    Name* next;
    DWORD hash;
    WORD length;
    char text[2]; // length bytes and a NUL

    std::string_view Text() const { return {text, length}; }
};

inline DWORD HashOf(std::string_view text) {
    return product::PublishedHash(text);
}

// The name with that text. Null: *status says why.
const Name* InternName(Account& account, std::string_view text, product::ServiceStatus* status);

// At the end of the service.
void ReleaseNames();

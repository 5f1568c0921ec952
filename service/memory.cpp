// State: the accounts and their totals; the table of names with its arena.
#include "memory.h"

#include <memory>
#include <new>
#include <string.h>

using namespace product;

// ---- accounts

namespace {

Lock g_accountsLock;
Account* g_accounts GUARDED_BY(g_accountsLock) = nullptr;
DWORD g_accountCount GUARDED_BY(g_accountsLock) = 0;
std::atomic<SIZE_T> g_held[kShareCount];

bool Add(std::atomic<SIZE_T>& held, SIZE_T amount, SIZE_T limit) {
    SIZE_T before = held.load(std::memory_order_relaxed);
    do {
        if (amount > limit || before > limit - amount) return false;
    } while (!held.compare_exchange_weak(before, before + amount, std::memory_order_relaxed));
    return true;
}

bool HoldsNothing(const std::atomic<SIZE_T> (&held)[kShareCount]) {
    for (const std::atomic<SIZE_T>& share : held)
        if (share.load(std::memory_order_acquire) != 0) return false;
    return true;
}

// Only clients charge an account, so one without clients that holds nothing stays that way.
void DropIdleAccounts() REQUIRES(g_accountsLock) {
    for (Account** link = &g_accounts; *link;) {
        Account* account = *link;
        if (account->clients == 0 && HoldsNothing(account->held)) {
            *link = account->next;
            delete account;
            --g_accountCount;
        } else {
            link = &account->next;
        }
    }
}

} // namespace

Account* EnterAccount(const char* user) {
    if (strlen(user) >= sizeof Account::user) return nullptr;
    LockHold hold{g_accountsLock};
    for (Account* account = g_accounts; account; account = account->next) {
        if (strcmp(account->user, user) == 0) {
            ++account->clients;
            return account;
        }
    }
    DropIdleAccounts();
    if (g_accountCount == kUsersMax) return nullptr;
    Account* account = new (std::nothrow) Account;
    if (!account) return nullptr;
    memcpy(account->user, user, strlen(user));
    account->clients = 1;
    account->next = g_accounts;
    g_accounts = account;
    ++g_accountCount;
    return account;
}

void LeaveAccount(Account* account) {
    LockHold hold{g_accountsLock};
    --account->clients;
}

bool Charge(Account& account, Share share, SIZE_T amount) {
    if (!Add(account.held[share], amount, kBounds[share].perUser)) return false;
    const SIZE_T all = kBounds[share].inAll;
    if (Add(g_held[share], amount, account.hasReserve.load(std::memory_order_relaxed) ? all : all - all / 4))
        return true;
    account.held[share].fetch_sub(amount, std::memory_order_release);
    return false;
}

void GiveBack(Account& account, Share share, SIZE_T amount) {
    g_held[share].fetch_sub(amount, std::memory_order_relaxed);
    account.held[share].fetch_sub(amount, std::memory_order_release); // the last access: the account may be deleted now
}

bool AccountsAreBalanced() {
    LockHold hold{g_accountsLock};
    DropIdleAccounts();
    return g_accounts == nullptr && HoldsNothing(g_held);
}

// ---- arenas

namespace {

// A printer's 60 variables take about 8 KiB: three chunks, with little unused.
constexpr SIZE_T kChunkSize = 4096 - 32; // fits a page with the allocator's header
// A piece that would waste much of a chunk gets a chunk of its own.
constexpr SIZE_T kLargePiece = 1024;

// The first aligned place at or behind from with size bytes before end; null when there is none.
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

// ---- names

namespace {

constexpr DWORD kBuckets = 4096;

Lock g_namesLock;
Arena g_arena;
Name* g_buckets[kBuckets] GUARDED_BY(g_namesLock);

} // namespace

const Name* InternName(Account& account, std::string_view text, product::ServiceStatus* status) {
    const DWORD hash = HashOf(text);
    LockHold hold{g_namesLock};
    Name*& bucket = g_buckets[hash % kBuckets];
    for (const Name* name = bucket; name; name = name->next)
        if (name->hash == hash && name->Text() == text) return name;
    void* piece = g_arena.Take(account, offsetof(Name, text) + text.size() + 1, alignof(Name), status);
    if (!piece) return nullptr;
    Name* name = static_cast<Name*>(piece); // zeroed: the NUL is there
    name->next = bucket;
    name->hash = hash;
    name->length = static_cast<WORD>(text.size());
    memcpy(name->text, text.data(), text.size());
    bucket = name;
    return name;
}

void ReleaseNames() {
    LockHold hold{g_namesLock};
    memset(g_buckets, 0, sizeof g_buckets);
    g_arena.Release();
}

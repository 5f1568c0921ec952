#include "names.h"

#include <string.h>

namespace {

constexpr DWORD kBuckets = 4096;

Lock g_namesLock;
Arena g_arena;
Name* g_buckets[kBuckets] GUARDED_BY(g_namesLock);

} // namespace

DWORD HashOf(std::string_view text) {
    DWORD hash = 2166136261U; // FNV-1a
    for (char c : text)
        hash = (hash ^ static_cast<BYTE>(c)) * 16777619U;
    return hash;
}

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

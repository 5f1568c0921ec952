#include "objects/table.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/random.h>

namespace oriel {

ObjectTable* g_table = nullptr;

namespace {

// Keeps the compiler from moving stores across. The kernel stops a process only between instructions, so their order is
// what the next process finds.
void KeepOrder() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

uint32_t* WordAt(uint32_t place) {
    return reinterpret_cast<uint32_t*>(g_table) + place;
}

void ChangeFile(int& file, int value) {
    Change(reinterpret_cast<uint32_t&>(file), static_cast<uint32_t>(value));
}

template <typename Record, size_t kSize>
uint32_t Take(Pool& pool, Record (&records)[kSize]) {
    const uint32_t number = pool.free != 0 ? pool.free : pool.used + 1;
    if (number >= kSize) return 0;
    if (pool.free != 0)
        Change(pool.free, records[number].next);
    else
        Change(pool.used, number);
    Change(pool.live, pool.live + 1);
    return number;
}

template <typename Record, size_t kSize>
void Free(Pool& pool, Record (&records)[kSize], uint32_t number) {
    Change(records[number].next, pool.free);
    Change(pool.free, number);
    Change(pool.live, pool.live - 1);
}

// FNV-1a from a secret beginning: nobody can choose names that meet in one bucket.
uint32_t& Bucket(const char* name) {
    uint64_t hash = g_table->secret;
    for (; *name != '\0'; ++name)
        hash = (hash ^ static_cast<unsigned char>(*name)) * 0x100000001B3;
    return g_table->buckets[(hash ^ hash >> 32) % kBuckets];
}

bool IsPrivilegedUser(const UserRecord& user) {
    return user.id == 0 || user.id == g_table->owner;
}

bool Charge(uint32_t number, Quota quota, uint32_t amount) {
    UserRecord& user = g_table->users[number];
    const uint32_t most = g_table->most[quota];
    uint32_t& byOthers = g_table->takenByOthers[quota];
    if (amount > most - g_table->taken[quota]) return false;
    if (!IsPrivilegedUser(user)) {
        if (user.taken[quota] + amount > most / kUserPart[quota] || byOthers + amount > most / 2) return false;
        Change(byOthers, byOthers + amount);
    }
    Change(user.taken[quota], user.taken[quota] + amount);
    Change(g_table->taken[quota], g_table->taken[quota] + amount);
    return true;
}

// A user without anything leaves the table.
void GiveBack(uint32_t number, Quota quota, uint32_t amount) {
    UserRecord& user = g_table->users[number];
    Change(user.taken[quota], user.taken[quota] - amount);
    Change(g_table->taken[quota], g_table->taken[quota] - amount);
    if (!IsPrivilegedUser(user)) Change(g_table->takenByOthers[quota], g_table->takenByOthers[quota] - amount);
    if (std::all_of(user.taken, std::end(user.taken), [](uint32_t taken) { return taken == 0; }))
        Free(g_table->userPool, g_table->users, number);
}

uint32_t FindOrAddUser(uid_t id) {
    for (uint32_t number = 1; number <= g_table->userPool.used; ++number) {
        const UserRecord& user = g_table->users[number];
        const bool live = std::any_of(user.taken, std::end(user.taken), [](uint32_t taken) { return taken != 0; });
        if (live && user.id == id) return number;
    }
    // Root and the server's user find room.
    constexpr uint32_t kReserved = 2;
    if (!IsPrivilegedUser({.id = id}) && g_table->userPool.live >= kMostUsers - kReserved) return 0;
    const uint32_t number = Take(g_table->userPool, g_table->users);
    if (number != 0) Change(g_table->users[number].id, id);
    return number;
}

uint32_t PagesOf(const ObjectRecord& object) {
    return (ObjectBytes(object.kind, object.size) + 4095) / 4096;
}

} // namespace

bool MakeTable(uid_t owner, uint32_t descriptors) {
    void* memory =
        mmap(nullptr, sizeof(ObjectTable), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return false;
    g_table = static_cast<ObjectTable*>(memory);
    if (getrandom(&g_table->secret, sizeof g_table->secret, 0) != ssize_t{sizeof g_table->secret}) return false;
    g_table->owner = owner;
    // Each connection and each object has a descriptor; some remain for the moment of an answer.
    constexpr uint32_t kSpare = 64;
    const uint32_t connections = std::min(kMostConnections, descriptors / 8);
    const uint32_t objects = std::min(kMostObjects, descriptors - connections - std::min(descriptors / 8, kSpare));
    const uint32_t most[kQuotaCount] = {connections, objects, kMostHolds, kMostPages};
    std::copy(std::begin(most), std::end(most), g_table->most);
    return true;
}

void Change(uint32_t& word, uint32_t value) {
    auto& changes = g_table->changes;
    const uint32_t count = changes.count.load(std::memory_order_relaxed);
    if (count == std::size(changes.words)) abort(); // a fault of ours: no request changes so many
    changes.words[count] = {static_cast<uint32_t>(&word - WordAt(0)), word};
    KeepOrder();
    changes.count.store(count + 1, std::memory_order_relaxed);
    KeepOrder();
    word = value;
}

void Commit() {
    KeepOrder();
    g_table->changes.count.store(0, std::memory_order_relaxed);
    KeepOrder();
}

void Undo() {
    auto& changes = g_table->changes;
    for (uint32_t count = changes.count.load(std::memory_order_relaxed); count > 0; --count) {
        *WordAt(changes.words[count - 1].place) = changes.words[count - 1].before;
        KeepOrder();
        changes.count.store(count - 1, std::memory_order_relaxed);
        KeepOrder();
    }
}

uint32_t AddConnection(uid_t id, int file) {
    const uint32_t user = FindOrAddUser(id);
    if (user == 0 || !Charge(user, kConnectionQuota, 1)) return 0;
    const uint32_t number = Take(g_table->connectionPool, g_table->connections);
    if (number == 0) return 0;
    ConnectionRecord& connection = g_table->connections[number];
    connection.firstHold = 0; // a free record: nobody looks
    connection.dropped = 0;
    connection.reply = {};
    ChangeFile(connection.file, file);
    Change(connection.user, user);
    Change(connection.live, 1);
    return number;
}

void RemoveConnection(uint32_t number) {
    ConnectionRecord& connection = g_table->connections[number];
    Change(connection.live, 0);
    GiveBack(connection.user, kConnectionQuota, 1);
    Free(g_table->connectionPool, g_table->connections, number);
}

uint32_t FindObject(const char* name) {
    uint32_t number = Bucket(name);
    while (number != 0 && std::strcmp(g_table->objects[number].name, name) != 0)
        number = g_table->objects[number].next;
    return number;
}

uint32_t AddObject(uint32_t connection, const ObjectRequest& request, ForEveryone forEveryone, int file) {
    const uint32_t number = Take(g_table->objectPool, g_table->objects);
    if (number == 0) return 0;
    ObjectRecord& object = g_table->objects[number];
    // A free record: only what says that it is in use must be taken back if this process dies.
    object.kind = request.kind;
    object.size = request.size;
    object.forEveryone = forEveryone;
    object.user = g_table->connections[connection].user;
    std::memcpy(object.name, request.name, sizeof object.name);
    if (!Charge(object.user, kObjectQuota, 1) || !Charge(object.user, kPageQuota, PagesOf(object))) return 0;
    uint32_t& first = Bucket(object.name);
    Change(object.holds, 0);
    ChangeFile(object.file, file);
    Change(object.next, first);
    Change(first, number);
    return number;
}

uint32_t AddHold(uint32_t connectionNumber, uint32_t objectNumber) {
    ConnectionRecord& connection = g_table->connections[connectionNumber];
    ObjectRecord& object = g_table->objects[objectNumber];
    if (!Charge(connection.user, kHoldQuota, 1)) return 0;
    const uint32_t number = Take(g_table->holdPool, g_table->holds);
    if (number == 0) return 0;
    HoldRecord& hold = g_table->holds[number];
    Change(hold.object, objectNumber);
    Change(hold.connection, connectionNumber);
    Change(hold.previous, 0);
    Change(hold.next, connection.firstHold);
    if (connection.firstHold != 0) Change(g_table->holds[connection.firstHold].previous, number);
    Change(connection.firstHold, number);
    Change(object.holds, object.holds + 1);
    return number;
}

namespace {

void RemoveObject(uint32_t number) {
    ObjectRecord& object = g_table->objects[number];
    uint32_t* place = &Bucket(object.name);
    while (*place != number)
        place = &g_table->objects[*place].next;
    Change(*place, object.next);
    GiveBack(object.user, kPageQuota, PagesOf(object));
    GiveBack(object.user, kObjectQuota, 1);
    Free(g_table->objectPool, g_table->objects, number);
}

} // namespace

int RemoveHold(uint32_t number) {
    HoldRecord& hold = g_table->holds[number];
    ConnectionRecord& connection = g_table->connections[hold.connection];
    const uint32_t objectNumber = hold.object;
    ObjectRecord& object = g_table->objects[objectNumber];
    if (hold.previous != 0)
        Change(g_table->holds[hold.previous].next, hold.next);
    else
        Change(connection.firstHold, hold.next);
    if (hold.next != 0) Change(g_table->holds[hold.next].previous, hold.previous);
    Change(hold.connection, 0);
    GiveBack(connection.user, kHoldQuota, 1);
    Free(g_table->holdPool, g_table->holds, number);
    Change(object.holds, object.holds - 1);
    if (object.holds != 0) return -1;
    const int file = object.file;
    RemoveObject(objectNumber);
    ChangeFile(object.file, -1);
    return file;
}

bool IsPrivileged(uint32_t connection) {
    return IsPrivilegedUser(g_table->users[g_table->connections[connection].user]);
}

ForEveryone Granted(uint32_t connection, const ObjectRecord& object) {
    const bool made = g_table->connections[connection].user == object.user;
    return made || IsPrivileged(connection) ? ForEveryone::All : object.forEveryone;
}

} // namespace oriel

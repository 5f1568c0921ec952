// The tables of the object server: connections, objects, who holds which, and what each user has taken.
//
// They lie in memory that the server's two processes share (server.cpp). A process that is killed in the middle of a
// change leaves it half done, so a change goes through Change(), which notes what was there before. Commit() makes all
// changes since the last one final; the next process takes back those of a process that died before (Undo). A new
// record is filled in before it is linked, so only the words that link and count are changed in this way.
//
// Records are known by their number in their table, from 1; 0 is none.
//
// State: g_table.
#pragma once

#include "objects/protocol.h"

#include <array>
#include <sys/types.h>

namespace oriel {

enum Quota { kConnectionQuota, kObjectQuota, kHoldQuota, kPageQuota, kQuotaCount };

// Sizes of the tables. Ten thousand printers have some five objects each, a section of 9 pages among them.
constexpr uint32_t kMostConnections = 1 << 13;
constexpr uint32_t kMostObjects = 1 << 18;
constexpr uint32_t kMostHolds = 1 << 20;
constexpr uint32_t kMostPages = 1 << 20; // of 4 KiB
constexpr uint32_t kMostUsers = 1 << 10;
constexpr uint32_t kBuckets = 1 << 16;
// The server's user and root take what they need. All others together have half of each table, and one of them has this
// part.
constexpr uint32_t kUserPart[kQuotaCount] = {8, 4, 4, 10};

struct UserRecord {
    uint32_t next;
    uid_t id;
    uint32_t taken[kQuotaCount];
};

struct ConnectionRecord {
    uint32_t next;
    uint32_t live;
    int file;
    uint32_t user;
    uint32_t firstHold;
    uint32_t dropped;  // nothing of it is read any more
    ObjectReply reply; // to the last request that was executed
};

struct HoldRecord {
    uint32_t next; // of the connection
    uint32_t previous;
    uint32_t connection; // 0: a free record
    uint32_t object;
};

struct ObjectRecord {
    uint32_t next; // of the bucket
    uint32_t holds;
    int file; // memfd
    ObjectKind kind;
    uint32_t size;
    ForEveryone forEveryone;
    uint32_t user; // who made it, and is charged for it
    char name[sizeof ObjectRequest::name];
};

// A table's records that are in use: those up to `used`, except for a list of free ones.
struct Pool {
    uint32_t used;
    uint32_t free;
    uint32_t live;
};

struct ObjectTable {
    // Of the processes: the socket, the run directory, the request that is being executed, and how often it has been
    // begun.
    int listener;
    int directory;
    ino_t socketNumber;
    uint32_t current;
    uint32_t begun;

    // The words that were changed since the last Commit, with their values before.
    struct {
        std::atomic<uint32_t> count;
        struct {
            uint32_t place; // in words from the beginning of the table
            uint32_t before;
        } words[64];
    } changes;

    uint64_t secret; // of the names' hash
    uid_t owner;
    uint32_t most[kQuotaCount];
    uint32_t taken[kQuotaCount];         // by all
    uint32_t takenByOthers[kQuotaCount]; // than the server's user and root

    Pool userPool, connectionPool, holdPool, objectPool;
    uint32_t buckets[kBuckets];
    UserRecord users[kMostUsers + 1];
    ConnectionRecord connections[kMostConnections + 1];
    HoldRecord holds[kMostHolds + 1];
    ObjectRecord objects[kMostObjects + 1];
};

extern ObjectTable* g_table;

// Reserves the tables, most of which are never touched. descriptors: as many may be open. False without memory.
bool MakeTable(uid_t owner, uint32_t descriptors);

void Change(uint32_t& word, uint32_t value);
void Commit();
void Undo();

// All of these are changes to commit; the ones that return a number return 0 when the user's part, or the table, is
// full.

uint32_t AddConnection(uid_t user, int file);
// Of a connection without holds.
void RemoveConnection(uint32_t connection);

uint32_t FindObject(const char* name);
// Without a hold yet.
uint32_t AddObject(uint32_t connection, const ObjectRequest& request, ForEveryone forEveryone, int file);

uint32_t AddHold(uint32_t connection, uint32_t object);
// The descriptor of the object if this was its last hold: to be closed after the commit. Else -1.
int RemoveHold(uint32_t hold);

// The server's user or root.
bool IsPrivileged(uint32_t connection);
// What the connection's user may do with the object.
ForEveryone Granted(uint32_t connection, const ObjectRecord& object);

} // namespace oriel

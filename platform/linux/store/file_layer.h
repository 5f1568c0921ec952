// A file layer for SQLite that locks nothing. Who holds the writers' lock reads and writes the file; everybody else
// reads one state of it, known by its number (sequence.h), and gets no byte of another one.
//
// Each page has a check sum, so that what was damaged is noticed when it is read, and never taken for data.
#pragma once

#include "store/sequence.h"

#include <cstdint>
#include <memory>
#include <windef.h>

struct sqlite3;

namespace oriel {

inline constexpr int kPageSize = 4096;
// Bytes at the end of each page that SQLite must leave free for the check sum (SQLITE_FCNTL_RESERVE_BYTES).
inline constexpr int kPageReserve = 8;
// What stands there, for a page at this place of the file.
uint64_t PageCheckSum(const unsigned char* page, int64_t offset);

// What a connection and its file know together. For one thread at a time.
struct StoreFile {
    static constexpr int64_t kHeaderSize = 100; // what SQLite keeps at the beginning of a file

    Sequence sequence;
    // A reader's state. The connection may have pages of it in its cache, which stay right until the number has moved
    // by more than one: a change that is being written has not happened yet.
    bool known = false;
    uint64_t number = 0;
    unsigned char header[kHeaderSize] = {};
    int64_t size = 0;
    std::unique_ptr<unsigned char[]> image; // the whole file, when many reads must see one state
    // A writer's: this process holds the writers' lock, and the number that it last wrote.
    bool writing = false;
    uint64_t written = 0;
    bool IsMarked() const { return written % 2 != 0; }
};

// A page of another state than the known one: look at the number again.
extern const int kStoreMoved;

// The name to give to sqlite3_open_v2, registered when it is not yet; null when SQLite cannot start. A page whose check
// sum is wrong reads as SQLITE_IOERR_DATA.
const char* FileLayer();
void UnregisterFileLayer();

// Says what the file of a connection is; until then it is read and written as it is. Not for SQLite's own threads.
void AttachStoreFile(sqlite3* connection, StoreFile* store);

// Makes the state of that number, which must rest, the known one; with `image` with all its bytes. A code of SQLite;
// kStoreMoved when the number has moved meanwhile.
int LoadState(sqlite3* connection, StoreFile& store, uint64_t number, bool image);

// Before the first byte is changed: makes the number odd. False when it cannot be written.
bool MarkChange(StoreFile& store);

} // namespace oriel

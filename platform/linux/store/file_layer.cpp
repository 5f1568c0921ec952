// A database's main file goes through the methods below; journals are SQLite's own business and have check sums
// already. State: the two layers, ours and the system's.
#include "store/file_layer.h"

#include "base/call.h"
#include "store/files.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <new>
#include <sqlite3.h>
#include <string_view>
#include <winerror.h>

namespace oriel {
namespace {

constexpr const char* kName = "oriel-store";
constexpr int kChecked = kPageSize - kPageReserve;

sqlite3_vfs* g_system;
sqlite3_vfs g_layer;
std::mutex g_registration;

// The system's file object lies right behind.
struct LayerFile {
    sqlite3_file base;
    StoreFile* store;          // null: read and written as it is
    alignas(8) char system[1]; // what SQLite aligns a file object to
};
constexpr int kSystemOffset = offsetof(LayerFile, system);

LayerFile* Ours(sqlite3_file* file) {
    return reinterpret_cast<LayerFile*>(file);
}
sqlite3_file* System(sqlite3_file* file) {
    return reinterpret_cast<sqlite3_file*>(Ours(file)->system);
}

// SQLite is C: no exception may reach it.
template <typename Body>
int Caught(Body body) {
    return CatchLackOfMemory([&]() -> int { return body(); }, [] { return SQLITE_IOERR_NOMEM; });
}

bool IsInState(StoreFile& store) {
    return store.known && store.sequence.Read().number == store.number;
}

int CopyFrom(const unsigned char* bytes, int64_t size, void* data, int amount, int64_t offset) {
    const int64_t there = offset < size ? std::min<int64_t>(amount, size - offset) : 0;
    std::memcpy(data, bytes + (there != 0 ? offset : 0), static_cast<size_t>(there));
    std::memset(static_cast<char*>(data) + there, 0, static_cast<size_t>(amount - there));
    return there == amount ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

// The bytes of the state that this user of the file may see.
int ReadBytes(sqlite3_file* file, void* data, int amount, sqlite3_int64 offset) {
    StoreFile* store = Ours(file)->store;
    const bool reader = store != nullptr && !store->writing;
    if (reader && store->image != nullptr) return CopyFrom(store->image.get(), store->size, data, amount, offset);
    // The counter of changes, by which SQLite decides whether its cache is still right.
    if (reader && offset + amount <= StoreFile::kHeaderSize)
        return store->known ? CopyFrom(store->header, StoreFile::kHeaderSize, data, amount, offset) : kStoreMoved;
    const int result = System(file)->pMethods->xRead(System(file), data, amount, offset);
    return reader && !IsInState(*store) ? kStoreMoved : result;
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    const StoreFile* store = Ours(file)->store;
    if (store == nullptr || store->writing) return System(file)->pMethods->xFileSize(System(file), size);
    *size = store->size;
    return store->known ? SQLITE_OK : kStoreMoved;
}

int Read(sqlite3_file* file, void* data, int amount, sqlite3_int64 offset) {
    const int result = Caught([&] { return ReadBytes(file, data, amount, offset); });
    // Behind the end there is nothing. Part of a page is what is left of it, and SQLite would fill it up with zeros.
    if (result == SQLITE_IOERR_SHORT_READ && amount == kPageSize) {
        sqlite3_int64 size = 0;
        if (FileSize(file, &size) != SQLITE_OK || size > offset) return SQLITE_IOERR_DATA;
    }
    if (result != SQLITE_OK) return result;
    if (amount == kPageSize && offset % kPageSize == 0) {
        const auto* page = static_cast<const unsigned char*>(data);
        uint64_t stored = 0;
        std::memcpy(&stored, page + kChecked, 8);
        return stored == PageCheckSum(page, offset) ? SQLITE_OK : SQLITE_IOERR_DATA;
    }
    // SQLite looks at the file's header before it knows the size of pages; everything else comes in pages.
    return offset + amount <= StoreFile::kHeaderSize ? SQLITE_OK : SQLITE_IOERR_DATA;
}

int Mark(sqlite3_file* file, int otherwise) {
    StoreFile* store = Ours(file)->store;
    return Caught([&] { return store == nullptr || MarkChange(*store) ? SQLITE_OK : otherwise; });
}

int Write(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
    if (amount != kPageSize || offset % kPageSize != 0) return SQLITE_IOERR_WRITE;
    if (const int result = Mark(file, SQLITE_IOERR_WRITE); result != SQLITE_OK) return result;
    unsigned char page[kPageSize];
    std::memcpy(page, data, kChecked);
    const uint64_t sum = PageCheckSum(page, offset);
    std::memcpy(page + kChecked, &sum, 8);
    return System(file)->pMethods->xWrite(System(file), page, amount, offset);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    if (const int result = Mark(file, SQLITE_IOERR_TRUNCATE); result != SQLITE_OK) return result;
    return System(file)->pMethods->xTruncate(System(file), size);
}

// The lock of the writers is not SQLite's business, and readers have none.
int Lock(sqlite3_file*, int) {
    return SQLITE_OK;
}
int CheckReservedLock(sqlite3_file*, int* reserved) {
    *reserved = 0;
    return SQLITE_OK;
}

int Close(sqlite3_file* file) {
    return System(file)->pMethods->xClose(System(file));
}
int Sync(sqlite3_file* file, int flags) {
    return System(file)->pMethods->xSync(System(file), flags);
}
int FileControl(sqlite3_file* file, int operation, void* argument) {
    return System(file)->pMethods->xFileControl(System(file), operation, argument);
}
int SectorSize(sqlite3_file* file) {
    return System(file)->pMethods->xSectorSize(System(file));
}
int DeviceCharacteristics(sqlite3_file* file) {
    return System(file)->pMethods->xDeviceCharacteristics(System(file));
}

// Version 1: without memory maps and the shared memory of write-ahead logs, both of which would go around Read.
const sqlite3_io_methods kMethods = {
    .iVersion = 1,
    .xClose = Close,
    .xRead = Read,
    .xWrite = Write,
    .xTruncate = Truncate,
    .xSync = Sync,
    .xFileSize = FileSize,
    .xLock = Lock,
    .xUnlock = Lock,
    .xCheckReservedLock = CheckReservedLock,
    .xFileControl = FileControl,
    .xSectorSize = SectorSize,
    .xDeviceCharacteristics = DeviceCharacteristics,
};

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    if ((flags & SQLITE_OPEN_MAIN_DB) == 0) {
        // SQLite writes to a journal that it finds.
        const int result = Caught([&] {
            const DWORD error = name != nullptr ? CheckFile(name) : ERROR_SUCCESS;
            if (error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND) return SQLITE_OK;
            return error == ERROR_BADDB ? SQLITE_CORRUPT : SQLITE_PERM;
        });
        if (result != SQLITE_OK) return result;
        return g_system->xOpen(g_system, name, file, flags, outFlags);
    }
    file->pMethods = nullptr;
    Ours(file)->store = nullptr;
    const int result = g_system->xOpen(g_system, name, System(file), flags, outFlags);
    // SQLite closes what has methods, also after a failed open.
    if (System(file)->pMethods != nullptr) file->pMethods = &kMethods;
    return result;
}

// Asked at every read: whether there is a journal or a write-ahead log. A journal is that of a writer who died only to
// those who hold the writers' lock, and nobody else may roll it back. A log there never is, since these files have no
// shared memory.
int Access(sqlite3_vfs*, const char* name, int flags, int* result) {
    *result = 0;
    if (flags != SQLITE_ACCESS_EXISTS) return g_system->xAccess(g_system, name, flags, result);
    if (!std::string_view(name).ends_with("-journal")) return SQLITE_OK;
    const LayerFile* file = Ours(sqlite3_database_file_object(name));
    if (file->base.pMethods != &kMethods || file->store == nullptr || !file->store->writing) return SQLITE_OK;
    return g_system->xAccess(g_system, name, flags, result);
}

sqlite3_file* FileOf(sqlite3* connection) {
    sqlite3_file* file = nullptr;
    sqlite3_file_control(connection, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    return file;
}

} // namespace

const int kStoreMoved = SQLITE_IOERR_BLOCKED; // which SQLite itself does not use any more

// Each step maps the sum one to one for a given word, and words one to one for a given sum: no change within one word
// goes unnoticed. The place is part of it, so that a page written to another's place is noticed too.
uint64_t PageCheckSum(const unsigned char* page, int64_t offset) {
    uint64_t sum = 0x9e3779b97f4a7c15 + static_cast<uint64_t>(offset);
    for (int at = 0; at < kChecked; at += 8) {
        uint64_t word = 0;
        std::memcpy(&word, page + at, 8);
        sum = (sum ^ word) * 0xff51afd7ed558ccd;
        sum = sum << 29 | sum >> 35;
    }
    return sum;
}

const char* FileLayer() {
    std::lock_guard hold(g_registration);
    if (sqlite3_initialize() != SQLITE_OK) return nullptr;
    if (sqlite3_vfs_find(kName) == &g_layer) return kName;
    g_system = sqlite3_vfs_find(nullptr);
    if (g_system == nullptr) return nullptr;
    // The rest is the system's own; its methods take any object with its data.
    g_layer = *g_system;
    g_layer.pNext = nullptr;
    g_layer.zName = kName;
    g_layer.szOsFile = kSystemOffset + g_system->szOsFile;
    g_layer.xOpen = Open;
    g_layer.xAccess = Access;
    return sqlite3_vfs_register(&g_layer, 0) == SQLITE_OK ? kName : nullptr;
}

void UnregisterFileLayer() {
    std::lock_guard hold(g_registration);
    if (sqlite3_vfs_find(kName) == &g_layer) sqlite3_vfs_unregister(&g_layer);
}

void AttachStoreFile(sqlite3* connection, StoreFile* store) {
    Ours(FileOf(connection))->store = store;
}

int LoadState(sqlite3* connection, StoreFile& store, uint64_t number, bool image) {
    sqlite3_file* system = System(FileOf(connection));
    unsigned char header[StoreFile::kHeaderSize];
    sqlite3_int64 size = 0;
    std::unique_ptr<unsigned char[]> bytes;
    int result = system->pMethods->xFileSize(system, &size);
    if (result == SQLITE_OK && image) {
        bytes.reset(new (std::nothrow) unsigned char[static_cast<size_t>(size)]);
        if (bytes == nullptr) return SQLITE_NOMEM;
        constexpr int64_t kAtOnce = 1 << 30;
        for (int64_t at = 0; at < size && result == SQLITE_OK; at += kAtOnce)
            result = system->pMethods->xRead(system, bytes.get() + at,
                                             static_cast<int>(std::min<int64_t>(kAtOnce, size - at)), at);
    }
    if (result == SQLITE_OK) result = system->pMethods->xRead(system, header, sizeof header, 0);
    if (store.sequence.Read().number != number) return kStoreMoved;
    // A new store appears whole, so one that is empty has lost what was in it.
    if (result == SQLITE_IOERR_SHORT_READ) return SQLITE_IOERR_DATA;
    if (result != SQLITE_OK) return result;
    std::memcpy(store.header, header, sizeof header);
    store.size = size;
    store.image = std::move(bytes);
    store.number = number;
    store.known = true;
    return SQLITE_OK;
}

bool MarkChange(StoreFile& store) {
    if (store.IsMarked()) return true;
    const bool marked = store.sequence.Write(store.written + 1) == ERROR_SUCCESS;
    if (marked) ++store.written;
    return marked;
}

} // namespace oriel

// A database's main file goes through the methods below; journals are SQLite's own business and have check sums
// already.
#include "store/checked_pages.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <sqlite3.h>
#include <string_view>

namespace oriel {
namespace {

constexpr const char* kName = "oriel-checked-pages";
constexpr int kChecked = kPageSize - kPageReserve;

sqlite3_vfs* g_system;
sqlite3_vfs g_checked;
std::mutex g_registration;

// The system's file object lies right behind.
struct CheckedFile {
    sqlite3_file base;
    alignas(8) char system[1]; // what SQLite aligns a file object to
};
constexpr int kSystemOffset = offsetof(CheckedFile, system);

sqlite3_file* System(sqlite3_file* file) {
    return reinterpret_cast<sqlite3_file*>(reinterpret_cast<CheckedFile*>(file)->system);
}

// Each step maps the sum one to one for a given word, and words one to one for a given sum: no change within one word
// goes unnoticed. The place is part of it, so that a page written to another's place is noticed too.
uint64_t CheckSum(const unsigned char* page, sqlite3_int64 offset) {
    uint64_t sum = 0x9e3779b97f4a7c15 + static_cast<uint64_t>(offset);
    for (int at = 0; at < kChecked; at += 8) {
        uint64_t word = 0;
        std::memcpy(&word, page + at, 8);
        sum = (sum ^ word) * 0xff51afd7ed558ccd;
        sum = sum << 29 | sum >> 35;
    }
    return sum;
}

int Read(sqlite3_file* file, void* data, int amount, sqlite3_int64 offset) {
    const int result = System(file)->pMethods->xRead(System(file), data, amount, offset);
    // Behind the end there is nothing. Part of a page is what is left of it, and SQLite would fill it up with zeros.
    if (result == SQLITE_IOERR_SHORT_READ && amount == kPageSize) {
        sqlite3_int64 size = 0;
        if (System(file)->pMethods->xFileSize(System(file), &size) != SQLITE_OK || size > offset)
            return SQLITE_IOERR_DATA;
    }
    if (result != SQLITE_OK) return result;
    if (amount == kPageSize && offset % kPageSize == 0) {
        const auto* page = static_cast<const unsigned char*>(data);
        uint64_t stored = 0;
        std::memcpy(&stored, page + kChecked, 8);
        return stored == CheckSum(page, offset) ? SQLITE_OK : SQLITE_IOERR_DATA;
    }
    // SQLite looks at the file's first 100 bytes before it knows the size of pages; everything else comes in pages.
    return offset + amount <= 100 ? SQLITE_OK : SQLITE_IOERR_DATA;
}

int Write(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
    if (amount != kPageSize || offset % kPageSize != 0) return SQLITE_IOERR_WRITE;
    unsigned char page[kPageSize];
    std::memcpy(page, data, kChecked);
    const uint64_t sum = CheckSum(page, offset);
    std::memcpy(page + kChecked, &sum, 8);
    return System(file)->pMethods->xWrite(System(file), page, amount, offset);
}

int Close(sqlite3_file* file) {
    return System(file)->pMethods->xClose(System(file));
}
int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    return System(file)->pMethods->xTruncate(System(file), size);
}
int Sync(sqlite3_file* file, int flags) {
    return System(file)->pMethods->xSync(System(file), flags);
}
int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    return System(file)->pMethods->xFileSize(System(file), size);
}
int Lock(sqlite3_file* file, int level) {
    return System(file)->pMethods->xLock(System(file), level);
}
int Unlock(sqlite3_file* file, int level) {
    return System(file)->pMethods->xUnlock(System(file), level);
}
int CheckReservedLock(sqlite3_file* file, int* reserved) {
    return System(file)->pMethods->xCheckReservedLock(System(file), reserved);
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
    .xUnlock = Unlock,
    .xCheckReservedLock = CheckReservedLock,
    .xFileControl = FileControl,
    .xSectorSize = SectorSize,
    .xDeviceCharacteristics = DeviceCharacteristics,
};

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    if ((flags & SQLITE_OPEN_MAIN_DB) == 0) return g_system->xOpen(g_system, name, file, flags, outFlags);
    file->pMethods = nullptr;
    const int result = g_system->xOpen(g_system, name, System(file), flags, outFlags);
    // SQLite closes what has methods, also after a failed open.
    if (System(file)->pMethods != nullptr) file->pMethods = &kMethods;
    return result;
}

// Asked at every read: whether there is a write-ahead log. There never is, since these files have no shared memory.
int Access(sqlite3_vfs*, const char* name, int flags, int* result) {
    if (flags == SQLITE_ACCESS_EXISTS && std::string_view(name).ends_with("-wal")) {
        *result = 0;
        return SQLITE_OK;
    }
    return g_system->xAccess(g_system, name, flags, result);
}

} // namespace

const char* CheckedPagesVfs() {
    std::lock_guard hold(g_registration);
    if (sqlite3_initialize() != SQLITE_OK) return nullptr;
    if (sqlite3_vfs_find(kName) == &g_checked) return kName;
    g_system = sqlite3_vfs_find(nullptr);
    if (g_system == nullptr) return nullptr;
    // The rest is the system's own; its methods take any object with its data.
    g_checked = *g_system;
    g_checked.pNext = nullptr;
    g_checked.zName = kName;
    g_checked.szOsFile = kSystemOffset + g_system->szOsFile;
    g_checked.xOpen = Open;
    g_checked.xAccess = Access;
    return sqlite3_vfs_register(&g_checked, 0) == SQLITE_OK ? kName : nullptr;
}

void UnregisterCheckedPagesVfs() {
    std::lock_guard hold(g_registration);
    if (sqlite3_vfs_find(kName) == &g_checked) sqlite3_vfs_unregister(&g_checked);
}

} // namespace oriel

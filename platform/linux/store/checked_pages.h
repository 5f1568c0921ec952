// A file layer for SQLite that puts a check sum on every page of a database, so that what was damaged is noticed when
// it is read, and never taken for data.
#pragma once

namespace oriel {

inline constexpr int kPageSize = 4096;
// Bytes at the end of each page that SQLite must leave free for the check sum (SQLITE_FCNTL_RESERVE_BYTES).
inline constexpr int kPageReserve = 8;

// The name to give to sqlite3_open_v2, registered when it is not yet; null when SQLite cannot start. A page whose check
// sum is wrong reads as SQLITE_IOERR_DATA.
const char* CheckedPagesVfs();
void UnregisterCheckedPagesVfs();

} // namespace oriel

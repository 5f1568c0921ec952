// Whether the service that published values still lives. Its memory outlives it, so a reader of published values asks
// this at each read. The service writes the record into a section of its own, which everybody may read. No state.
#pragma once

#include <windows.h>

#include <atomic>

namespace product {

// 16 bytes at the beginning of the section.
struct LifeRecord {
    DWORD mark;              // kLifeMark
    DWORD process;           // its id
    std::atomic<DWORD> word; // 0: it has ended, or ends; else the system's (service_life_linux.cpp), or 1
    DWORD reserved;
};
static_assert(sizeof(LifeRecord) == 16);
inline constexpr DWORD kLifeMark = 0x3166694C; // "Lif1"

// Fills in the record of the calling process. False: this system cannot tell; clients then ask the service.
bool BeginLife(LifeRecord& record);
// The service does not answer any more.
void EndLife(LifeRecord& record);

// What a client needs to look at a record.
struct LifeWatch {
    const LifeRecord* record = nullptr; // in a view, which the owner of this record keeps
    HANDLE process = nullptr;           // where the system does not mark the word
};

// False: it cannot be watched.
bool BeginLifeWatch(const LifeRecord* record, LifeWatch* watch);
void EndLifeWatch(LifeWatch& watch);
bool IsAlive(const LifeWatch& watch);

} // namespace product

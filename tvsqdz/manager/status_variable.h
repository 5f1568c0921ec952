// A status variable: its type, its size, what the operations of the library may do with it, and its initial value.
#pragma once

#include <windows.h>

#include <stdint.h>

struct ManagerRecord;

// Type codes: the masked value names the type, and the operations switch on the whole of it.
inline constexpr uint32_t SVT_MASK = 0x300000FF;
inline constexpr uint32_t SVT_BYTE = 0x01;
inline constexpr uint32_t SVT_WORD = 0x02;
inline constexpr uint32_t SVT_NUMBER = 0x04; // 32 bits
inline constexpr uint32_t SVT_STRING = 0x08; // NUL-terminated text in a field of the size
inline constexpr uint32_t SVT_VARIABLE =
    0x10;                                    // stored as u32 length of the payload, payload; handed over as the payload
inline constexpr uint32_t SVT_RECORD = 0x20; // fixed record of the size
inline constexpr uint32_t SVT_COMPOSITE = 0x40; // its members' values one behind the other; composed by the service
inline constexpr uint32_t SVT_QUEUE = 0x80;     // stored as u32 length, u32 count, items of the size, oldest first
inline constexpr uint32_t SVT_EXTENDED = 0x30000000; // its stored size is asked as for SVT_VARIABLE
// The stored size must be asked before a read.
inline constexpr uint32_t SVT_PROBED = SVT_VARIABLE | SVT_EXTENDED;

// Behaviour bits.
inline constexpr uint32_t SVF_PERSISTENT = 0x00000100;              // has a copy in the printer's driver data
inline constexpr uint32_t SVF_DIRECT = 0x00000200;                  // the printer itself can be asked for it
inline constexpr uint32_t SVF_RESET_ON_PORT_CHANGE = 0x00000800;    // a new port takes it back to its initial value
inline constexpr uint32_t SVF_NOTIFY_EVERY_WRITE = 0x00001000;      // not only changes are told
inline constexpr uint32_t SVF_READABLE = 0x00010000;                // the value reads serve it
inline constexpr uint32_t SVF_WRITABLE = 0x00020000;                // the direct and asynchronous writes serve it
inline constexpr uint32_t SVF_PRINTER_DEFINED = 0x01000000;         // a row of the printer model, owned by its manager
inline constexpr uint32_t SVF_WRITE_WITHOUT_AUTHORITY = 0x08000000; // direct writes do not ask for the authority
inline constexpr uint32_t SVF_DIRECT_READ = 0x40000000;             // as SVF_DIRECT, for the direct read alone

// Builds an initial value. buffer null: only answers the size in bytes; else fills *buffer with that many.
using BuildDefaultProc = uint32_t (*)(void** buffer);
// Serves a write inside the library; a status of the exports.
using LocalWriteProc = int32_t (*)(ManagerRecord* manager, const void* data, uint32_t size);
// Serves a read inside the library; the value's size in bytes. buffer null: only that.
using LocalReadProc = uint32_t (*)(ManagerRecord* manager, void* buffer);
// Converts between the ANSI and the wide form of a value; size: of the wide form, in bytes.
using ConvertProc = int32_t(WINAPI*)(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
using ThreadProc = DWORD(WINAPI*)(void* parameter);

struct StatusVariableDef {
    uint32_t flags = 0;     // type code and behaviour bits
    uint32_t size = 0;      // in bytes as the A exports exchange it; of a queue's item; 0 where it varies
    uint32_t timeoutMs = 0; // part of the catalogue; the library does not act on it
    // At least `size` bytes. A variable-length value in its stored form; of a composite its members' names, each
    // followed by ";", and NUL-terminated.
    const void* defaultValue = nullptr;
    // Handlers; null: the variable is served as all others are.
    BuildDefaultProc buildDefault = nullptr;
    ThreadProc watchThreadProc = nullptr;    // watches it for events and messages
    ThreadProc callbackThreadProc = nullptr; // watches it for callbacks
    LocalWriteProc localWrite = nullptr;
    LocalReadProc localRead = nullptr;
    ConvertProc toWide = nullptr;
    ConvertProc toAnsi = nullptr;
    const char* name = nullptr;
};

constexpr uint32_t TypeOf(const StatusVariableDef& variable) {
    return variable.flags & SVT_MASK;
}

// The table of the printers that one process serves (`TVSPSD.EXE --hosted`): a named section, which the process that
// starts it makes. That one writes which printers are to be served, the other how each of them ended. Only the user who
// runs the product may open it. No state.
//
// Layout: HostedHead, then HostedPrinter[kHostedPrintersMax], whose first `used` may be in use.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

namespace product {

struct HostedHead {
    DWORD mark; // kHostedMark
    std::atomic<DWORD> used;
};
static_assert(sizeof(HostedHead) == 8);
inline constexpr DWORD kHostedMark = 0x31736F48; // "Hos1"

// The texts have a NUL. They change only while the row is free.
struct HostedPrinter {
    std::atomic<DWORD> wanted; // number of the run that is to be; 0: none
    std::atomic<DWORD> ended;  // the last run that has ended; equal to wanted: by itself
    std::atomic<DWORD> code;   // its exit code, as that of a process of its own
    DWORD run;                 // the starter's own: the number of the row's run; 0: the row is free
    char printer[260];         // ANSI
    char port[132];            // ANSI
    char device[512];          // UTF-8
};
static_assert(sizeof(HostedPrinter) == 920);

inline constexpr DWORD kHostedPrintersMax = 1000;
inline constexpr DWORD kHostedTableSize = sizeof(HostedHead) + kHostedPrintersMax * sizeof(HostedPrinter);
static_assert(kHostedTableSize <= 1 << 20);

inline constexpr char kHostedTableName[] = "TVORSQD:HostedPrinters:"; // followed by numbers

inline HostedPrinter* HostedPrintersOf(void* table) {
    return reinterpret_cast<HostedPrinter*>(static_cast<BYTE*>(table) + sizeof(HostedHead));
}

} // namespace product

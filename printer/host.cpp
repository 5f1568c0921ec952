// State: the records of the host and of each printer that it serves.
#include "host.h"

#include "network_device.h"
#include "network_side.h"
#include "text.h"

#include "product/guards.h"
#include "product/hosted_printers.h"
#include "product/log.h"

#include <algorithm>
#include <map>
#include <memory>

using namespace product;

namespace {

constexpr DWORD kLookMs = 100; // between looks at the table
constexpr SIZE_T kStackSize = 256 * 1024;
constexpr DWORD kEndMs = 4500; // for all to end; less than the starter waits

// A printer that is served. The thread reads it; only the host changes it, before the thread begins and after it ended.
struct Hosted {
    PrinterSideOptions side{};
    std::string device{};
    DWORD run = 0;
    HostedPrinter* row = nullptr; // of the table, which stays mapped
    KernelHandle stop{};
    KernelHandle thread{};
};

void TellEnd(const Hosted& hosted, DWORD code) {
    hosted.row->code.store(code);
    hosted.row->ended.store(hosted.run, std::memory_order_release);
}

DWORD WINAPI Serve(LPVOID parameter) {
    const Hosted& hosted = *static_cast<Hosted*>(parameter);
    TellEnd(hosted, static_cast<DWORD>(ServeNetworkPrinter(hosted.side, hosted.device, kPollMs, hosted.stop.Get())));
    return 0;
}

template <SIZE_T size>
std::string TextOf(const char (&field)[size]) {
    return {field, std::find(field, field + size, '\0')};
}

// Null: it cannot be served now, which was told.
std::unique_ptr<Hosted> Begin(HostedPrinter& row, DWORD run) {
    auto hosted = std::make_unique<Hosted>();
    hosted->device = TextOf(row.device);
    hosted->side = {.printer = TextOf(row.printer), .port = TextOf(row.port), .ofPrintServer = IsQueue(hosted->device)};
    hosted->run = run;
    hosted->row = &row;
    hosted->stop = KernelHandle(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (hosted->stop) hosted->thread = KernelHandle(CreateThread(nullptr, kStackSize, Serve, hosted.get(), 0, nullptr));
    if (hosted->thread) return hosted;
    Log(LogLevel::Error, hosted->side.printer + ": there is no thread, system error " + std::to_string(GetLastError()));
    TellEnd(*hosted, kCannotBegin);
    return nullptr;
}

using Table = std::map<DWORD, std::unique_ptr<Hosted>>; // by row

void Tend(void* view, Table& table) {
    std::erase_if(
        table, [](const auto& entry) { return WaitForSingleObject(entry.second->thread.Get(), 0) == WAIT_OBJECT_0; });
    const DWORD used =
        std::min(static_cast<HostedHead*>(view)->used.load(std::memory_order_acquire), kHostedPrintersMax);
    for (DWORD number = 0; number < used; ++number) {
        HostedPrinter& row = HostedPrintersOf(view)[number];
        const DWORD wanted = row.wanted.load(std::memory_order_acquire);
        const auto served = table.find(number);
        if (served != table.end()) {
            if (served->second->run != wanted) SetEvent(served->second->stop.Get());
        } else if (wanted != 0 && wanted != row.ended.load()) {
            if (std::unique_ptr<Hosted> hosted = Begin(row, wanted)) table.emplace(number, std::move(hosted));
        }
    }
}

// One that does not end in time, because something else holds it up, keeps its record: the process ends.
void EndAll(Table& table) {
    for (const auto& [number, hosted] : table)
        SetEvent(hosted->stop.Get());
    const DWORD start = GetTickCount();
    for (auto& [number, hosted] : table) {
        const DWORD waited = std::min(GetTickCount() - start, kEndMs);
        if (WaitForSingleObject(hosted->thread.Get(), kEndMs - waited) != WAIT_OBJECT_0)
            static_cast<void>(hosted.release());
    }
}

} // namespace

int ServeHostedPrinters(const std::string& tableName, HANDLE stop) {
    const KernelHandle section(OpenFileMappingA(FILE_MAP_WRITE, FALSE, tableName.c_str()));
    void* view = section ? MapViewOfFile(section.Get(), FILE_MAP_WRITE, 0, 0, kHostedTableSize) : nullptr;
    if (!view || static_cast<HostedHead*>(view)->mark != kHostedMark) {
        Log(LogLevel::Error, "there is no table of printers of the name " + tableName);
        return kCannotBegin;
    }
    Table table;
    do
        Tend(view, table);
    while (WaitForSingleObject(stop, kLookMs) == WAIT_TIMEOUT);
    EndAll(table);
    return kStopped; // the view stays: a thread may be left
}

// State: the object's.
#include "commands/printer_host.h"

#include "base/child_program.h"
#include "base/product.h"
#include "commands/printer_sides.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

using namespace product;

namespace {

template <SIZE_T size>
bool Fits(const char (&)[size], const std::string& text) {
    return text.size() < size && text.find('\0') == text.npos;
}

template <SIZE_T size>
void SetText(char (&field)[size], const std::string& text) {
    std::fill(field, field + size, '\0');
    text.copy(field, size - 1);
}

} // namespace

bool MayBeHosted(const std::string& printer, const std::string& port, const std::string& device) {
    constexpr std::string_view kSchemes[] = {"ipp:", "ipps:", "snmp:", "cups:"};
    const HostedPrinter row{};
    const bool onNetwork = std::any_of(std::begin(kSchemes), std::end(kSchemes),
                                       [&](std::string_view scheme) { return device.starts_with(scheme); });
    return onNetwork && device.find("version=3") == device.npos && Fits(row.printer, printer) && Fits(row.port, port) &&
           Fits(row.device, device);
}

bool PrinterHost::Start() {
    std::string stop, name;
    m_stop = NewStopEvent("PrinterSide", stop);
    m_section = NewObject(kHostedTableName, name, [](const char* text) {
        return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kHostedTableSize, text);
    });
    if (m_section) m_view = MapViewOfFile(m_section.Get(), FILE_MAP_WRITE, 0, 0, kHostedTableSize);
    if (m_view && m_stop) {
        static_cast<HostedHead*>(m_view)->mark = kHostedMark;
        const std::string program = InstalledDirectory().value_or("") + kPrinterSideProgram;
        m_process = StartProgram(program, Quoted(program) + " --hosted " + Quoted(name) + " --owner " +
                                              std::to_string(GetCurrentProcessId()) + " --stop-event " + Quoted(stop));
    }
    if (m_process) return true;
    const DWORD error = GetLastError();
    Forget();
    SetLastError(error);
    return false;
}

void PrinterHost::Forget() {
    if (m_view) UnmapViewOfFile(m_view);
    m_view = nullptr;
    m_section.Reset();
    m_stop.Reset();
    m_process.Reset();
    m_rows = 0;
}

std::optional<DWORD> PrinterHost::Begin(const std::string& printer, const std::string& port,
                                        const std::string& device) {
    if (!m_process && !Start()) return std::nullopt;
    auto& head = *static_cast<HostedHead*>(m_view);
    const DWORD used = head.used.load();
    HostedPrinter* rows = HostedPrintersOf(m_view);
    HostedPrinter* row = std::find_if(rows, rows + used, [](const HostedPrinter& each) { return each.run == 0; });
    if (row == rows + kHostedPrintersMax) {
        SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return std::nullopt;
    }
    SetText(row->printer, printer);
    SetText(row->port, port);
    SetText(row->device, device);
    row->run = ++m_run;
    row->wanted.store(m_run, std::memory_order_release);
    ++m_rows;
    const auto number = static_cast<DWORD>(row - rows);
    if (number == used) head.used.store(used + 1, std::memory_order_release);
    return number;
}

void PrinterHost::End(DWORD row) {
    if (m_view) HostedPrintersOf(m_view)[row].wanted.store(0, std::memory_order_release);
}

std::optional<DWORD> PrinterHost::TakeEnd(DWORD number) {
    if (!m_view) return std::nullopt;
    HostedPrinter& row = HostedPrintersOf(m_view)[number];
    if (row.ended.load(std::memory_order_acquire) != row.run) return std::nullopt;
    row.wanted.store(0);
    row.run = 0;
    --m_rows;
    return row.code.load();
}

std::optional<DWORD> PrinterHost::TakeEndOfAll() {
    if (!m_process || WaitForSingleObject(m_process.Get(), 0) != WAIT_OBJECT_0) return std::nullopt;
    DWORD code = 0;
    GetExitCodeProcess(m_process.Get(), &code);
    Forget();
    return code;
}

void PrinterHost::EndAll() {
    if (m_stop) SetEvent(m_stop.Get());
}

void PrinterHost::EndIfUnused() {
    if (!m_process || m_rows != 0) return;
    EndAll();
    m_leaving = std::move(m_process);
    Forget();
}

void PrinterHost::WaitForEnd(DWORD milliseconds) {
    const DWORD start = GetTickCount();
    for (KernelHandle* process : {&m_process, &m_leaving}) {
        if (!*process) continue;
        const DWORD waited = std::min(GetTickCount() - start, milliseconds);
        if (WaitForSingleObject(process->Get(), milliseconds - waited) != WAIT_OBJECT_0)
            TerminateProcess(process->Get(), 1);
    }
    Forget();
}

// The process that serves many printers on the network (`TVSPSD.EXE --hosted`), and its table of printers
// (product/hosted_printers.h). State: the object's.
#pragma once

#include "base/handles.h"

#include "product/hosted_printers.h"

#include <optional>
#include <string>

// Whether a printer with this device may share a process with others: it is on the network, and fits the table. A
// printer that is asked by SNMP 3 may not: the library for SNMP keeps the users of that version for the whole process,
// and only one thread may change them.
bool MayBeHosted(const std::string& printer, const std::string& port, const std::string& device);

class PrinterHost {
public:
    PrinterHost() = default;
    PrinterHost(const PrinterHost&) = delete;
    PrinterHost& operator=(const PrinterHost&) = delete;

    // Serves the printer from now on; starts the process if it does not run. The row of the table; nothing when it
    // cannot, and the last error says why.
    std::optional<DWORD> Begin(const std::string& printer, const std::string& port, const std::string& device);
    // Asks for the end of the row's printer side.
    void End(DWORD row);
    // The exit code of the row's printer side, which has ended. The row is free then.
    std::optional<DWORD> TakeEnd(DWORD row);

    // The exit code of the process, once, when it has ended. Its rows have ended with it.
    std::optional<DWORD> TakeEndOfAll();
    // Asks the process to end.
    void EndAll();
    // Asks it when there is no printer left.
    void EndIfUnused();
    // Waits until no process of this object runs; kills those that run after that time.
    void WaitForEnd(DWORD milliseconds);

private:
    bool Start();
    void Forget();

    KernelHandle m_process{};
    KernelHandle m_stop{};
    KernelHandle m_section{};
    void* m_view = nullptr;
    DWORD m_rows = 0;         // in use
    DWORD m_run = 0;          // the last number given
    KernelHandle m_leaving{}; // a process that was asked to end because it had no printer left
};

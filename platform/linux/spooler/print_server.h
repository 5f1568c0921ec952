// The system's print server (CUPS) as a back end, and what its module offers.
//
// libcups brings some thirty libraries, so what uses it is a module of its own, oriel/liboriel_cups.so beside this
// library. It is loaded by the first call that a server may answer, and stays: not while the server's socket refuses,
// or is not there. Which server: CUPS_SERVER, else ServerName in ~/.cups/client.conf or /etc/cups/client.conf, else the
// socket of this machine's.
#pragma once

#include "spooler/back_end.h"

namespace oriel {

// Its procedures give moreover RPC_S_SERVER_UNAVAILABLE (there is none, or it went away), ERROR_TIMEOUT (it does not
// answer: after two seconds), ERROR_MOD_NOT_FOUND.
extern const SpoolerBackEnd kPrintServer;

// Whether it let somebody wait in vain a moment ago. Calls that can do without it leave it alone for some seconds then.
bool PrintServerIsPaused();

// What a call of the module is told. Texts that go in and out are UTF-8.
struct PrintServerCall {
    std::string server;     // as CUPS_SERVER has it: a socket's path, or host[:port]
    std::string user;       // the calling thread's, for the server to judge by
    bool mayAll = false;    // root
    int64_t deadlineNs = 0; // of the monotonic clock: the call is over by then
};

// As the procedures of SpoolerBackEnd, and RPC_S_SERVER_UNAVAILABLE, ERROR_TIMEOUT, ERROR_NO_SYSTEM_RESOURCES. A
// printer's name is that of its queue.
struct PrintServerModule {
    DWORD size; // of this record: both sides were built together
    DWORD (*listPrinters)(const PrintServerCall& call, std::vector<Printer>* printers);
    // ERROR_INVALID_PRINTER_NAME.
    DWORD (*readPrinter)(const PrintServerCall& call, const std::string& name, Printer* printer);
    DWORD (*listJobs)(const PrintServerCall& call, const std::string& name, std::vector<Job>* jobs);
    DWORD (*changeJob)(const PrintServerCall& call, const std::string& name, DWORD job, JobCommand command);
};

// The module's one export, of type const PrintServerModule* ().
inline constexpr const char* kPrintServerEntry = "OrielPrintServerModule";

} // namespace oriel

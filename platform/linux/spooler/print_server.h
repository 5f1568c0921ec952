// The system's print server (CUPS) as a back end, and the interface of its module. State: print_server.cpp.
//
// libcups brings some thirty libraries, so its user is a module, oriel/liboriel_cups.so next to this library. The first
// call that a server may answer loads it for good; a call does not load it while the server's socket refuses or does
// not exist. The server: CUPS_SERVER, else ServerName in ~/.cups/client.conf or /etc/cups/client.conf, else this
// machine's socket.
#pragma once

#include "spooler/back_end.h"

namespace oriel {

// Its procedures also return RPC_S_SERVER_UNAVAILABLE (no server, or it went away), ERROR_TIMEOUT (no answer within two
// seconds), ERROR_MOD_NOT_FOUND.
extern const SpoolerBackEnd kPrintServer;

// As SpoolerBackEnd's procedures: the printers of the server, and those that announce themselves in the network. Takes
// some seconds.
DWORD DiscoverPrinters(std::vector<Printer>* printers);

// Sets the event after each change of a printer or a job, from now on. ERROR_NOT_SUPPORTED: the server does not tell.
DWORD WatchPrintServer(HANDLE event, void** watch);
void EndServerWatch(void* watch);

// True when it recently did not answer a call. Calls that can do without it then skip it for some seconds.
bool PrintServerIsPaused();

// The parameters of every call of the module. Texts in both directions are UTF-8.
struct PrintServerCall {
    std::string server;     // in the form of CUPS_SERVER: the path of a socket, or host[:port]
    std::string user;       // the calling thread's user, whose rights the server checks
    bool mayAll = false;    // root
    int64_t deadlineNs = 0; // monotonic clock; the call ends by then
};

// Like the procedures of SpoolerBackEnd, with RPC_S_SERVER_UNAVAILABLE, ERROR_TIMEOUT, ERROR_NO_SYSTEM_RESOURCES. The
// name of a printer is that of its queue.
struct PrintServerModule {
    DWORD size; // of this record; proves that both sides were built together
    DWORD (*listPrinters)(const PrintServerCall& call, std::vector<Printer>* printers);
    // ERROR_INVALID_PRINTER_NAME.
    DWORD (*readPrinter)(const PrintServerCall& call, const std::string& name, Printer* printer);
    DWORD (*listJobs)(const PrintServerCall& call, const std::string& name, DWORD most, std::vector<Job>* jobs);
    DWORD (*changeJob)(const PrintServerCall& call, const std::string& name, DWORD job, JobCommand command);
    // The server's printers, and those that announce themselves in the network.
    DWORD (*discover)(const PrintServerCall& call, std::vector<Printer>* printers);
    // Has changed(context) called, in a thread of its own, after each change of a printer or a job, until endWatch.
    // ERROR_NOT_SUPPORTED: the server's notifier program of ours is not installed.
    DWORD (*watch)(const PrintServerCall& call, void (*changed)(void*), void* context, void** watch);
    void (*endWatch)(void* watch);
};

// The only export of the module, of type const PrintServerModule* ().
inline constexpr const char* kPrintServerEntry = "OrielPrintServerModule";

} // namespace oriel

// Finding the print server, and its answers in the ANSI code page. State: the loaded module, and until when a server
// that does not answer is skipped.
#include "spooler/print_server.h"

#include "base/descriptor.h"
#include "base/futex.h"
#include "base/timings.h"
#include "security/accounts.h"
#include "spooler/records.h"
#include "text/names.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <rpcnterr.h>
#include <synchapi.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <winspool.h>

namespace oriel {
namespace {

constexpr const char* kModule = "oriel/liboriel_cups.so"; // next to the layer
constexpr const char* kUsualSocket = "/run/cups/cups.sock";
constexpr const char* kSystemSettings = "/etc/cups/client.conf";
constexpr const char* kUserSettings = "/.cups/client.conf"; // below the home directory
constexpr int64_t kPauseNs = 5000 * kNsPerMs;

std::atomic<int64_t> g_pausedUntilNs{0};

// The value of the last ServerName line; empty when there is none.
std::string ServerNameIn(const std::string& path) {
    std::ifstream file(path);
    std::string word;
    std::string value;
    for (std::string line; std::getline(file, line);) {
        const size_t begin = line.find_first_not_of(" \t");
        const size_t end = line.find_first_of(" \t", begin);
        if (begin == std::string::npos || end == std::string::npos) continue;
        if (strcasecmp(line.substr(begin, end - begin).c_str(), "ServerName") != 0) continue;
        const size_t from = line.find_first_not_of(" \t", end);
        if (from != std::string::npos) value = line.substr(from, line.find_last_not_of(" \t\r") + 1 - from);
    }
    return value;
}

std::string FindServer() {
    const char* set = secure_getenv("CUPS_SERVER");
    if (set != nullptr && *set != '\0') return set;
    const char* home = secure_getenv("HOME");
    std::string server = home != nullptr ? ServerNameIn(std::string(home) + kUserSettings) : "";
    if (server.empty()) server = ServerNameIn(kSystemSettings);
    return !server.empty() ? server : kUsualSocket;
}

// True when somebody listens there, or may. Costs a system call or two where nobody does, which is most machines.
bool MayListen(const std::string& server) {
    if (!server.starts_with('/')) return true; // another machine's: configured on purpose, so it is asked
    sockaddr_un address{.sun_family = AF_UNIX};
    if (server.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, server.c_str(), server.size() + 1);
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // A full backlog (EAGAIN) means a server that is busy or stopped.
    return probe.IsOpen() &&
           (connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN);
}

// Null when the module is missing or from another build.
const PrintServerModule* LoadModule() {
    Dl_info here{};
    if (dladdr(&kPrintServer, &here) == 0 || here.dli_fname == nullptr) return nullptr;
    std::string path = here.dli_fname;
    path.resize(path.rfind('/') + 1);
    void* module = dlopen((path + kModule).c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (module == nullptr) return nullptr;
    const auto entry = reinterpret_cast<const PrintServerModule* (*)()>(dlsym(module, kPrintServerEntry));
    const PrintServerModule* loaded = entry != nullptr ? entry() : nullptr;
    return loaded != nullptr && loaded->size == sizeof *loaded ? loaded : nullptr;
}

const PrintServerModule* Module() {
    static const PrintServerModule* module = LoadModule();
    return module;
}

PrintServerCall CallWithin(uint32_t limitMs) {
    PrintServerCall how{.server = FindServer()};
    const uid_t user = geteuid();
    how.user = AnsiToUtf8(NameOfUser(user));
    if (how.user.empty()) how.user = std::to_string(user);
    how.mayAll = user == 0;
    how.deadlineNs = MonotonicNs() + limitMs * kNsPerMs;
    return how;
}

// Runs call(module, how) and records a server that did not answer.
template <typename Call>
DWORD AskServer(Call call) {
    const PrintServerCall how = CallWithin(g_timings.printServerCall);
    if (!MayListen(how.server)) return RPC_S_SERVER_UNAVAILABLE;
    const PrintServerModule* module = Module();
    if (module == nullptr) return ERROR_MOD_NOT_FOUND;
    const DWORD error = call(*module, how);
    g_pausedUntilNs = error == ERROR_TIMEOUT ? MonotonicNs() + kPauseNs : 0;
    return error;
}

// False for a queue whose name is not in the ANSI code page or not valid for a printer; nobody could open it.
bool ToAnsi(Printer* printer) {
    const std::string queue = printer->Name();
    for (std::string& text : printer->texts)
        text = Utf8ToAnsi(text);
    return AnsiToUtf8(printer->Name()) == queue && IsPrinterName(printer->Name()) && !IsConnection(printer->Name());
}

void ToAnsi(Job* job) {
    for (std::string* text : {&job->machine, &job->user, &job->document, &job->datatype})
        *text = Utf8ToAnsi(*text);
}

DWORD ListServerPrinters(std::vector<Printer>* printers) {
    const DWORD error = AskServer([&](const PrintServerModule& module, const PrintServerCall& how) {
        return module.listPrinters(how, printers);
    });
    std::erase_if(*printers, [](Printer& printer) { return !ToAnsi(&printer); });
    return error;
}

DWORD ReadServerPrinter(const std::string& name, Printer* printer) {
    if (!IsPrinterName(name) || IsConnection(name)) return ERROR_INVALID_PRINTER_NAME;
    const DWORD error = AskServer([&](const PrintServerModule& module, const PrintServerCall& how) {
        return module.readPrinter(how, AnsiToUtf8(name), printer);
    });
    if (error != ERROR_SUCCESS) return error;
    return ToAnsi(printer) ? DWORD{ERROR_SUCCESS} : DWORD{ERROR_INVALID_PRINTER_NAME};
}

DWORD FindServerPrinter(const std::string& name, PrinterKey* key) {
    Printer printer;
    const DWORD error = ReadServerPrinter(name, &printer);
    if (error == ERROR_SUCCESS) *key = {.id = 0, .name = printer.Name()};
    return error;
}

DWORD ReadKnownServerPrinter(const PrinterKey& key, Printer* printer) {
    const DWORD error = ReadServerPrinter(key.name, printer);
    return error == ERROR_INVALID_PRINTER_NAME ? ERROR_PRINTER_DELETED : error;
}

DWORD ListServerJobs(const PrinterKey& key, DWORD most, std::vector<Job>* jobs) {
    const DWORD error = AskServer([&](const PrintServerModule& module, const PrintServerCall& how) {
        return module.listJobs(how, AnsiToUtf8(key.name), most, jobs);
    });
    for (Job& job : *jobs)
        ToAnsi(&job);
    return error;
}

DWORD ChangeServerJob(const PrinterKey& key, DWORD job, JobCommand command) {
    return AskServer([&](const PrintServerModule& module, const PrintServerCall& how) {
        return module.changeJob(how, AnsiToUtf8(key.name), job, command);
    });
}

} // namespace

const SpoolerBackEnd kPrintServer{
    .listPrinters = ListServerPrinters,
    .findPrinter = FindServerPrinter,
    .readPrinter = ReadKnownServerPrinter,
    .listJobs = ListServerJobs,
    .changeJob = ChangeServerJob,
};

DWORD DiscoverPrinters(std::vector<Printer>* printers) {
    // Without a server too: printers announce themselves.
    const PrintServerModule* module = Module();
    if (module == nullptr) return ERROR_MOD_NOT_FOUND;
    const DWORD error = module->discover(CallWithin(g_timings.printerDiscovery), printers);
    std::erase_if(*printers, [](Printer& printer) { return !ToAnsi(&printer); });
    return error;
}

DWORD WatchPrintServer(HANDLE event, void** watch) {
    return AskServer([&](const PrintServerModule& module, const PrintServerCall& how) {
        return module.watch(
            how, [](void* changed) { SetEvent(changed); }, event, watch);
    });
}

void EndServerWatch(void* watch) {
    Module()->endWatch(watch);
}

bool PrintServerIsPaused() {
    return MonotonicNs() < g_pausedUntilNs;
}

} // namespace oriel

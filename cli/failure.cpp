// The one table from codes to meanings, advice and exit codes.
#include "failure.h"

#include <tvsqdz.h>
#include <windows.h>

#include <rpcnterr.h>

namespace {

struct CodeMeaning {
    int64_t code;
    Exit exitCode;
    const char* why;
    const char* next;
};

constexpr const char* kStartIt = "start it with 'oriel up'";
constexpr const char* kAskAgain = "try again; 'oriel status' shows whether the service runs";

// Negative: status codes of the library and answers of the service that it passes on. Positive: codes of the system and
// of the RPC run-time.
constexpr CodeMeaning kMeanings[] = {
    {TVS_E_HANDLE, Exit::False, "the manager is no longer open", "run the command again"},
    {TVS_E_UNAVAILABLE, Exit::NoService, "no manager can be opened", "see 'oriel status'"},
    {TVS_E_UNKNOWN, Exit::False, "unknown variable, or one that does not allow this operation",
     "list the variables with 'oriel vars PRINTER'"},
    {TVS_E_MEMORY, Exit::False, "out of memory, or the printer has no driver that defines its variables",
     "see the DRIVER column of 'oriel printers'"},
    {TVS_E_FAULT, Exit::False, "memory cannot be read or written", ""},
    {TVS_E_SIZE, Exit::False, "the value has another size", "see the SIZE column of 'oriel vars PRINTER'"},
    {TVS_E_REQUEST_LOCK, Exit::TimedOut, "another request holds the printer's request lock", kAskAgain},
    {TVS_E_NOT_READY, Exit::TimedOut, "the printer side is not ready", kAskAgain},
    {TVS_E_NO_OWNER, Exit::False, "no process owns the printer, or the spooler does not know it",
     "see 'oriel printers'"},
    {TVS_E_NOT_NOW, Exit::False, "the printer takes no such request now, or the job does not exist",
     "'oriel printers' shows whether its printer side runs"},
    {TVS_E_UNREGISTERED, Exit::False, "the printer's model is not registered",
     "register it with 'oriel reg import FILE', or use another --kind"},
    {TVS_E_SERVICE_TIMEOUT, Exit::TimedOut, "the status database service did not come up in time", kStartIt},
    {TVS_E_AUTHORITY, Exit::Denied, "you do not have the right to do this on this printer",
     "'oriel authority PRINTER --explain' shows your rights"},

    // Answers of the service.
    {-2, Exit::False, "the product knows another printer by that name", "choose another name"},
    {-3, Exit::NoService, "the service was restarted and has no database of the printer yet", "run the command again"},
    {-5, Exit::False, "the printer's database does not have that variable",
     "a model that was registered after the printer was first opened counts once the product is restarted"},
    {-7, Exit::False, "the variable does not take a value of this size",
     "see the TYPE and SIZE columns of 'oriel vars PRINTER'"},
    {-8, Exit::False, "the value grew while it was being read", "run the command again"},
    {-11, Exit::False, "a limit of the service is reached", ""},
    {-14, Exit::NoService, "no printer side serves the printer",
     "'oriel up' starts one for each printer that was added with --script"},
    {-15, Exit::False, "the service is out of memory", ""},
    {-18, Exit::TimedOut, "the printer side did not answer", kAskAgain},

    {ERROR_FILE_NOT_FOUND, Exit::False, "not found", ""},
    {ERROR_PATH_NOT_FOUND, Exit::False, "not found", ""},
    {ERROR_ACCESS_DENIED, Exit::Denied, "access denied",
     "run the command as the owner of the state directory that 'oriel status' shows"},
    {ERROR_NOT_ENOUGH_MEMORY, Exit::False, "out of memory", ""},
    {ERROR_BAD_FORMAT, Exit::False, "not in the expected format", ""},
    {ERROR_INVALID_PARAMETER, Exit::False, "the system refused it as invalid", ""},
    {ERROR_INVALID_NAME, Exit::False, "not a valid name", ""},
    {ERROR_BUSY, Exit::TimedOut, "another process keeps the registry locked", "try again"},
    {WAIT_TIMEOUT, Exit::TimedOut, "timed out", "try again"},
    {ERROR_TIMEOUT, Exit::TimedOut, "timed out", "try again"},
    {ERROR_KEY_DELETED, Exit::False, "the key has been deleted", ""},
    {ERROR_BADDB, Exit::False, "the registry's file is damaged", "restore the state directory from a copy"},
    {ERROR_REGISTRY_IO_FAILED, Exit::False, "the registry's file cannot be read or written",
     "check the state directory that 'oriel status' shows"},
    {ERROR_SERVICE_REQUEST_TIMEOUT, Exit::TimedOut, "the service did not start in time", "try again"},
    {ERROR_SERVICE_DISABLED, Exit::NoService, "the service is disabled",
     R"(enable it: oriel reg set 'HKLM\SYSTEM\CurrentControlSet\Services\TVORSDB' Start 3 --type dword)"},
    {ERROR_SERVICE_DOES_NOT_EXIST, Exit::NoService, "the status database service is not installed", kStartIt},
    {ERROR_SERVICE_NOT_ACTIVE, Exit::NoService, "the status database service is not running", kStartIt},
    {ERROR_PROCESS_ABORTED, Exit::NoService, "the service ended unexpectedly", kStartIt},
    {ERROR_SERVICE_NEVER_STARTED, Exit::NoService, "the status database service was not started", kStartIt},
    {RPC_S_SERVER_UNAVAILABLE, Exit::NoService, "the status database service is not running", kStartIt},
    {RPC_S_SERVER_TOO_BUSY, Exit::TimedOut, "the status database service did not answer in time", kAskAgain},
    {RPC_S_CALL_FAILED, Exit::NoService, "the connection to the status database service broke", kAskAgain},
    {RPC_S_CALL_FAILED_DNE, Exit::NoService, "the connection to the status database service broke", kAskAgain},
    {ERROR_INVALID_PRINTER_NAME, Exit::False, "no such printer", "list them with 'oriel printers'"},
    {ERROR_PRINTER_ALREADY_EXISTS, Exit::False, "there is already a printer with that name",
     "list them with 'oriel printers'"},
    {ERROR_NOT_SUPPORTED, Exit::False, "the spooler does not support this for this printer", ""},
    {ERROR_NOT_ENOUGH_QUOTA, Exit::False, "the spooler is full", "wait until jobs have printed, or cancel some"},
    {ERROR_PRINT_CANCELLED, Exit::False, "the job has been cancelled", ""},
    {ERROR_DISK_FULL, Exit::False, "the disk is full", ""},
    {ERROR_PRINTER_DELETED, Exit::False, "the printer has been deleted", ""},
};

Failure Explain(int64_t code, std::string what) {
    for (const CodeMeaning& meaning : kMeanings)
        if (meaning.code == code) return {meaning.exitCode, std::move(what), meaning.why, meaning.next, code};
    return {Exit::False, std::move(what), code < 0 ? "the status database service refused it" : "system error", "",
            code};
}

} // namespace

Failure UsageFailure(std::string what, std::string next) {
    return {Exit::Usage, std::move(what), "", std::move(next)};
}

Failure StatusFailure(int32_t status, std::string what) {
    return Explain(status, std::move(what));
}

Failure SystemFailure(uint32_t code, std::string what) {
    return Explain(code, std::move(what));
}

std::string FailureLine(const Failure& failure) {
    std::string line = failure.what;
    if (!failure.why.empty()) line += ": " + failure.why;
    if (failure.code) line += (failure.code < 0 ? " (status " : " (error ") + std::to_string(failure.code) + ")";
    if (!failure.next.empty()) line += "; " + failure.next;
    return line;
}

// The one table from codes to meanings, advice and exit codes. No state.
#include "base/failure.h"

#include "product/interface.h"

#include <tvsqdz_status.h>
#include <windows.h>

#include <rpcnterr.h>

#include <algorithm>

namespace {

struct CodeMeaning {
    int32_t code;
    Exit exitCode;
    const char* why; // null: the text of tvsqdz_status.h
    const char* next;
};

constexpr const char* kStartIt = "start it with 'oriel up'";
constexpr const char* kAskAgain = "try again; 'oriel status' shows whether the service runs";

// Negative codes are those of the library and answers of the service that it passes on. Positive codes are those of the
// system and of the RPC run-time.
constexpr CodeMeaning kMeanings[] = {
    {TVS_E_HANDLE, Exit::False, nullptr, "run the command again"},
    {TVS_E_UNAVAILABLE, Exit::NoService, nullptr, "see 'oriel status'"},
    {TVS_E_UNKNOWN, Exit::False, nullptr, "list the variables with 'oriel vars PRINTER'"},
    {TVS_E_MEMORY, Exit::False, nullptr, "see the DRIVER column of 'oriel printers'"},
    {TVS_E_FAULT, Exit::False, nullptr, ""},
    {TVS_E_SIZE, Exit::False, nullptr, "see the SIZE column of 'oriel vars PRINTER'"},
    {TVS_E_REQUEST_LOCK, Exit::TimedOut, nullptr, kAskAgain},
    {TVS_E_NOT_READY, Exit::TimedOut, nullptr, kAskAgain},
    {TVS_E_NO_OWNER, Exit::False, nullptr, "see 'oriel printers'"},
    {TVS_E_NOT_NOW, Exit::False, nullptr, "'oriel printers' shows whether its printer side runs"},
    {TVS_E_UNREGISTERED, Exit::False, nullptr, "register it with 'oriel reg import FILE', or use another --kind"},
    {TVS_E_SERVICE_TIMEOUT, Exit::TimedOut, nullptr, kStartIt},
    {TVS_E_AUTHORITY, Exit::Denied, nullptr, "'oriel authority PRINTER --explain' shows your rights"},

    // Answers of the service.
    {product::kDatabaseExists, Exit::False, nullptr, "choose another name"},
    {product::kUnknownDatabase, Exit::NoService, nullptr, "run the command again"},
    {product::kUnknownVariable, Exit::False, nullptr,
     "a model that was registered after the printer was first opened counts once the product is restarted"},
    {product::kWrongSize, Exit::False, nullptr, "see the TYPE and SIZE columns of 'oriel vars PRINTER'"},
    {product::kBufferTooSmall, Exit::False, nullptr, "run the command again"},
    {product::kLimitReached, Exit::False, nullptr, ""},
    {product::kNoPrinterSide, Exit::NoService, nullptr,
     "'oriel up' starts one for each printer that was added with --device or --script"},
    {product::kOutOfMemory, Exit::False, nullptr, ""},
    {product::kNoAnswer, Exit::TimedOut, nullptr, kAskAgain},

    {ERROR_FILE_NOT_FOUND, Exit::False, "not found", ""},
    {ERROR_PATH_NOT_FOUND, Exit::False, "not found", ""},
    {ERROR_ACCESS_DENIED, Exit::Denied, nullptr,
     "run it as root, as a member of the administrators' group, or as the owner of the state that 'oriel status' "
     "shows"},
    {ERROR_NOT_ENOUGH_MEMORY, Exit::False, nullptr, ""},
    {ERROR_BAD_FORMAT, Exit::False, "not in the expected format", ""},
    {ERROR_INVALID_PARAMETER, Exit::False, nullptr, ""},
    {ERROR_INVALID_NAME, Exit::False, "not a valid name", ""},
    {ERROR_BUSY, Exit::TimedOut, "another process keeps the registry locked", "try again"},
    {WAIT_TIMEOUT, Exit::TimedOut, "timed out", "try again"},
    {ERROR_TIMEOUT, Exit::TimedOut, nullptr, "try again"},
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
    {RPC_S_SERVER_UNAVAILABLE, Exit::NoService, nullptr, kStartIt},
    {RPC_S_SERVER_TOO_BUSY, Exit::TimedOut, nullptr, kAskAgain},
    {RPC_S_CALL_FAILED, Exit::NoService, nullptr, kAskAgain},
    {RPC_S_CALL_FAILED_DNE, Exit::NoService, nullptr, kAskAgain},
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
    // Codes beyond 31 bits are the system's.
    const char* text = TvsStatusText(static_cast<int32_t>(std::min<int64_t>(code, INT32_MAX)));
    for (const CodeMeaning& meaning : kMeanings)
        if (meaning.code == code)
            return {meaning.exitCode, std::move(what), meaning.why ? meaning.why : text, meaning.next, code};
    return {Exit::False, std::move(what), text, "", code};
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

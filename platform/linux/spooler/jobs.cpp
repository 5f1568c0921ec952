// The spooler's calls on jobs, on documents that become jobs, and on change notifications, which are named events.
// State: the document of a handle; the watches on printers of the print server.
#include "base/call.h"
#include "spooler/print_server.h"
#include "spooler/printer_object.h"
#include "spooler/records.h"

#include <cerrno>
#include <cstring>
#include <handleapi.h>
#include <map>
#include <mutex>
#include <securitybaseapi.h>
#include <string>
#include <synchapi.h>
#include <winspool.h>

namespace oriel {
namespace {

std::string EventName(int64_t printer) {
    return "OrielJobs:" + std::to_string(printer);
}

// Every user may spool, and signals that.
HANDLE CreateJobsEvent(int64_t printer) {
    SECURITY_DESCRIPTOR everyone{};
    SECURITY_ATTRIBUTES attributes{sizeof attributes, &everyone, FALSE};
    if (!InitializeSecurityDescriptor(&everyone, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&everyone, TRUE, nullptr, FALSE))
        return nullptr;
    return CreateEventA(&attributes, TRUE, FALSE, EventName(printer).c_str());
}

} // namespace

void TellOfJobs(int64_t printer) {
    const DWORD lastError = GetLastError();
    if (const HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, EventName(printer).c_str())) {
        SetEvent(event);
        CloseHandle(event);
    }
    SetLastError(lastError);
}

namespace {

DWORD CommandOf(DWORD number, JobCommand* command) {
    switch (number) {
    case JOB_CONTROL_PAUSE:
        *command = JobCommand::Pause;
        return ERROR_SUCCESS;
    case JOB_CONTROL_RESUME:
        *command = JobCommand::Resume;
        return ERROR_SUCCESS;
    case JOB_CONTROL_CANCEL:
    case JOB_CONTROL_DELETE:
        *command = JobCommand::Cancel;
        return ERROR_SUCCESS;
    default:
        return ERROR_INVALID_PARAMETER;
    }
}

// Watches on printers of the print server, by their events.
std::mutex g_watchesLock;
std::map<HANDLE, void*> g_watches;

DWORD BeginServerWatch(HANDLE event) {
    void* watch = nullptr;
    const DWORD error = WatchPrintServer(event, &watch);
    if (error != ERROR_SUCCESS) return error;
    const std::lock_guard hold(g_watchesLock);
    g_watches[event] = watch;
    return ERROR_SUCCESS;
}

void EndServerWatchOf(HANDLE event) {
    void* watch = nullptr;
    {
        const std::lock_guard hold(g_watchesLock);
        const auto found = g_watches.find(event);
        if (found == g_watches.end()) return;
        watch = found->second;
        g_watches.erase(found);
    }
    EndServerWatch(watch);
}

std::string_view TextOr(const char* text, std::string_view otherwise) {
    return text != nullptr && *text != '\0' ? text : otherwise;
}

DWORD StartDocumentOf(PrinterObject& printer, const DOC_INFO_1A& record, DWORD* job) {
    if (record.pOutputFile != nullptr) return ERROR_INVALID_PARAMETER;
    if (printer.backEnd != &kEmbeddedSpool) return ERROR_NOT_SUPPORTED;
    Printer known;
    if (const DWORD error = printer.backEnd->readPrinter(printer.key, &known); error != ERROR_SUCCESS) return error;
    const std::lock_guard hold(printer.documentLock);
    if (printer.document.job != 0) return ERROR_BUSY;
    const DWORD error = StartDocument(printer.key.id, {TextOr(record.pDocName, ""), TextOr(record.pDatatype, "RAW")},
                                      &printer.document);
    *job = printer.document.job;
    return error;
}

} // namespace
} // namespace oriel

using namespace oriel;

HANDLE WINAPI FindFirstPrinterChangeNotification(HANDLE printer, DWORD filter, DWORD options, LPVOID notifyOptions) {
    HANDLE event = nullptr;
    const DWORD error = CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_USE);
        if (!open) return GetLastError();
        if ((filter & ~DWORD{PRINTER_CHANGE_SET_PRINTER}) != PRINTER_CHANGE_JOB || options != 0 ||
            notifyOptions != nullptr)
            return ERROR_INVALID_PARAMETER;
        const bool embedded = open->backEnd == &kEmbeddedSpool;
        event = embedded ? CreateJobsEvent(open->key.id) : CreateEventA(nullptr, TRUE, FALSE, nullptr);
        if (event == nullptr) return GetLastError();
        const DWORD begun = embedded ? ERROR_SUCCESS : BeginServerWatch(event);
        if (begun != ERROR_SUCCESS) CloseHandle(event);
        return begun;
    });
    return Succeeds(error) ? event : INVALID_HANDLE_VALUE;
}

BOOL WINAPI FindNextPrinterChangeNotification(HANDLE notification, LPDWORD change, LPVOID notifyOptions, LPVOID* info) {
    if (notifyOptions != nullptr || info != nullptr) return Succeeds(ERROR_INVALID_PARAMETER);
    if (!ResetEvent(notification)) return FALSE;
    if (change != nullptr) *change = PRINTER_CHANGE_JOB;
    return TRUE;
}

BOOL WINAPI FindClosePrinterChangeNotification(HANDLE notification) {
    EndServerWatchOf(notification);
    return CloseHandle(notification);
}

BOOL WINAPI EnumJobsA(HANDLE printer, DWORD first, DWORD count, DWORD level, LPBYTE buffer, DWORD size, LPDWORD needed,
                      LPDWORD returned) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_USE);
        if (!open) return GetLastError();
        if (needed == nullptr || returned == nullptr) return ERROR_INVALID_PARAMETER;
        *needed = 0;
        *returned = 0;
        if (level != 1) return ERROR_INVALID_LEVEL;
        std::vector<Job> jobs;
        DWORD error =
            open->backEnd->listJobs(open->key, count < UINT32_MAX - first ? first + count : UINT32_MAX, &jobs);
        if (error != ERROR_SUCCESS) return error;
        const size_t begin = std::min<size_t>(first, jobs.size());
        const std::span<const Job> asked(jobs.data() + begin, std::min<size_t>(count, jobs.size() - begin));
        error = WriteJobRecords(asked, begin, open->key.name, buffer, size, needed);
        if (error == ERROR_SUCCESS) *returned = static_cast<DWORD>(asked.size());
        return error;
    }));
}

BOOL WINAPI SetJobA(HANDLE printer, DWORD job, DWORD level, LPBYTE record, DWORD command) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_USE);
        if (!open) return GetLastError();
        if (level != 0) return ERROR_INVALID_LEVEL;
        if (record != nullptr) return ERROR_INVALID_PARAMETER;
        JobCommand known{};
        DWORD error = CommandOf(command, &known);
        if (error == ERROR_SUCCESS) error = open->backEnd->changeJob(open->key, job, known);
        if (error == ERROR_SUCCESS && open->backEnd == &kEmbeddedSpool) TellOfJobs(open->key.id);
        return error;
    }));
}

DWORD WINAPI StartDocPrinterA(HANDLE printer, DWORD level, LPBYTE record) {
    DWORD job = 0;
    Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_USE);
        if (!open) return GetLastError();
        if (level != 1) return ERROR_INVALID_LEVEL;
        if (record == nullptr) return ERROR_INVALID_PARAMETER;
        DOC_INFO_1A copy; // the caller's may be unaligned
        std::memcpy(&copy, record, sizeof copy);
        const DWORD error = StartDocumentOf(*open.Get(), copy, &job);
        if (error == ERROR_SUCCESS) TellOfJobs(open->key.id);
        return error;
    }));
    return job;
}

BOOL WINAPI WritePrinter(HANDLE printer, LPVOID buffer, DWORD size, LPDWORD written) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_USE);
        if (!open) return GetLastError();
        if (written == nullptr || (buffer == nullptr && size != 0)) return ERROR_INVALID_PARAMETER;
        *written = 0;
        const std::lock_guard hold(open->documentLock);
        if (open->document.job == 0) return ERROR_SPL_NO_STARTDOC;
        return AppendToDocument(open->document, buffer, size, written);
    }));
}

BOOL WINAPI EndDocPrinter(HANDLE printer) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, PRINTER_ACCESS_USE);
        if (!open) return GetLastError();
        const std::lock_guard hold(open->documentLock);
        if (open->document.job == 0) return ERROR_SPL_NO_STARTDOC;
        const DWORD error = EndDocument(open->document);
        TellOfJobs(open->key.id);
        return error;
    }));
}

BOOL WINAPI ReadPrinter(HANDLE printer, LPVOID buffer, DWORD size, LPDWORD readBytes) {
    return Succeeds(CodeCall([&]() -> DWORD {
        const HandleUse<PrinterObject> open(printer, kPrinterType, JOB_ACCESS_READ);
        if (!open) return GetLastError();
        if (readBytes == nullptr || (buffer == nullptr && size != 0)) return ERROR_INVALID_PARAMETER;
        *readBytes = 0;
        const std::lock_guard hold(open->documentLock);
        ssize_t count = 0;
        do {
            count = read(open->jobDocument.Get(), buffer, size);
        } while (count < 0 && errno == EINTR);
        if (count < 0) return errno == EFAULT ? DWORD{ERROR_NOACCESS} : SystemError(errno);
        *readBytes = static_cast<DWORD>(count);
        return ERROR_SUCCESS;
    }));
}

// The module for the print server: printers and jobs of CUPS (RFC 8011, and CUPS's documented operations) through
// libcups. No state between calls.
#include "announcements.h"
#include "connection.h"
#include "watch.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <strings.h>
#include <system_error>
#include <winerror.h>
#include <winspool.h>

namespace oriel {
namespace {

constexpr const char* kPrinterAttributes[] = {
    "printer-name", "printer-info",      "printer-location", "printer-make-and-model",
    "device-uri",   "printer-is-shared", "printer-state",    "printer-is-accepting-jobs"};
constexpr const char* kJobAttributes[] = {"job-id",
                                          "job-name",
                                          "job-originating-user-name",
                                          "job-originating-host-name",
                                          "job-state",
                                          "job-state-reasons",
                                          "job-priority",
                                          "job-printer-uri",
                                          "job-impressions",
                                          "job-impressions-completed",
                                          "time-at-creation",
                                          "document-format-supplied"};
constexpr int64_t kMsPerSecond = 1000;

template <size_t count>
void AskFor(const Message& request, const char* const (&attributes)[count]) {
    ippAddStrings(request.get(), IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", count, nullptr,
                  attributes);
}

// The attributes of one printer or job in an answer.
class Attributes {
public:
    void Add(ipp_attribute_t* attribute) { m_all.push_back(attribute); }
    bool Empty() const { return m_all.empty(); }
    void Clear() { m_all.clear(); }

    ipp_attribute_t* Find(const char* name) const {
        for (ipp_attribute_t* attribute : m_all)
            if (std::strcmp(ippGetName(attribute), name) == 0) return attribute;
        return nullptr;
    }
    // Empty when absent, also when the user may not know it.
    std::string Text(const char* name) const {
        const char* text = ippGetString(Find(name), 0, nullptr);
        return text != nullptr ? text : "";
    }
    int Number(const char* name) const {
        const int number = ippGetInteger(Find(name), 0);
        return number > 0 ? number : 0;
    }

private:
    std::vector<ipp_attribute_t*> m_all;
};

// Calls take(attributes) for each printer or job in the answer.
template <typename Take>
void ForEach(const Message& answer, ipp_tag_t group, Take take) {
    Attributes one;
    for (ipp_attribute_t* at = ippFirstAttribute(answer.get()); at != nullptr; at = ippNextAttribute(answer.get())) {
        if (ippGetGroupTag(at) == group && ippGetName(at) != nullptr) {
            one.Add(at);
            continue;
        }
        if (!one.Empty()) take(one);
        one.Clear();
    }
    if (!one.Empty()) take(one);
}

bool Succeeded(ipp_status_t status) {
    return status <= IPP_STATUS_OK_CONFLICTING;
}

// ERROR_FILE_NOT_FOUND means the subject of the request.
DWORD ErrorOf(ipp_status_t status, const Message& answer, const Connection& connection) {
    if (Succeeded(status)) return ERROR_SUCCESS;
    switch (status) {
    case IPP_STATUS_ERROR_NOT_FOUND:
    case IPP_STATUS_ERROR_GONE:
        return ERROR_FILE_NOT_FOUND;
    case IPP_STATUS_ERROR_FORBIDDEN:
    case IPP_STATUS_ERROR_NOT_AUTHENTICATED:
    case IPP_STATUS_ERROR_NOT_AUTHORIZED:
    case IPP_STATUS_ERROR_CUPS_AUTHENTICATION_CANCELED:
        return ERROR_ACCESS_DENIED;
    case IPP_STATUS_ERROR_NOT_POSSIBLE:
    case IPP_STATUS_ERROR_BUSY:
        return ERROR_BUSY;
    default:
        return answer == nullptr ? connection.Failure() : DWORD{ERROR_INVALID_FUNCTION};
    }
}

Printer PrinterOf(const Attributes& attributes) {
    Printer printer;
    printer.texts[kPrinterName] = attributes.Text("printer-name");
    printer.texts[kPortName] = attributes.Text("device-uri");
    printer.texts[kDriverName] = attributes.Text("printer-make-and-model");
    printer.texts[kPrinterComment] = attributes.Text("printer-info");
    printer.texts[kPrinterLocation] = attributes.Text("printer-location");
    printer.texts[kPrintProcessor] = "winprint";
    printer.texts[kPrinterDatatype] = "RAW";
    printer.attributes = PRINTER_ATTRIBUTE_LOCAL;
    if (attributes.Number("printer-state") == IPP_PSTATE_STOPPED) printer.status |= PRINTER_STATUS_PAUSED;
    ipp_attribute_t* accepts = attributes.Find("printer-is-accepting-jobs");
    if (accepts != nullptr && ippGetBoolean(accepts, 0) == 0) printer.status |= PRINTER_STATUS_NOT_AVAILABLE;
    if (ippGetBoolean(attributes.Find("printer-is-shared"), 0) != 0) {
        printer.attributes |= PRINTER_ATTRIBUTE_SHARED;
        printer.texts[kShareName] = printer.Name();
    }
    return printer;
}

bool HasReason(const Attributes& attributes, const char* reason) {
    ipp_attribute_t* reasons = attributes.Find("job-state-reasons");
    for (int at = 0; at < ippGetCount(reasons); ++at)
        if (std::strcmp(ippGetString(reasons, at, nullptr), reason) == 0) return true;
    return false;
}

DWORD StatusOf(const Attributes& attributes) {
    DWORD status = 0;
    switch (static_cast<ipp_jstate_t>(attributes.Number("job-state"))) {
    case IPP_JSTATE_HELD:
        status = JOB_STATUS_PAUSED;
        break;
    case IPP_JSTATE_PROCESSING:
        status = JOB_STATUS_PRINTING;
        break;
    case IPP_JSTATE_STOPPED: // its printer is stopped
        status = JOB_STATUS_BLOCKED_DEVQ;
        break;
    case IPP_JSTATE_CANCELED:
    case IPP_JSTATE_ABORTED:
        status = JOB_STATUS_DELETED;
        break;
    case IPP_JSTATE_COMPLETED:
        status = JOB_STATUS_PRINTED;
        break;
    case IPP_JSTATE_PENDING:
        break;
    }
    if (HasReason(attributes, "job-incoming")) status |= JOB_STATUS_SPOOLING;
    if (HasReason(attributes, "processing-to-stop-point")) status |= JOB_STATUS_DELETING;
    return status;
}

Job JobOf(const Attributes& attributes) {
    Job job;
    job.id = static_cast<DWORD>(attributes.Number("job-id"));
    job.status = StatusOf(attributes);
    job.priority = static_cast<DWORD>(attributes.Number("job-priority"));
    job.totalPages = static_cast<DWORD>(attributes.Number("job-impressions"));
    job.pagesPrinted = static_cast<DWORD>(attributes.Number("job-impressions-completed"));
    job.submittedMs = attributes.Number("time-at-creation") * kMsPerSecond;
    job.machine = attributes.Text("job-originating-host-name");
    job.user = attributes.Text("job-originating-user-name");
    job.document = attributes.Text("job-name");
    job.datatype = attributes.Text("document-format-supplied");
    if (job.datatype.empty()) job.datatype = "RAW";
    return job;
}

// True when the job is in the printer's queue; queue names have no case.
bool IsOf(const Attributes& job, const std::string& queue) {
    char scheme[HTTP_MAX_URI];
    char user[HTTP_MAX_URI];
    char host[HTTP_MAX_URI];
    char resource[HTTP_MAX_URI];
    int port = 0;
    const std::string uri = job.Text("job-printer-uri");
    if (httpSeparateURI(HTTP_URI_CODING_ALL, uri.c_str(), scheme, sizeof scheme, user, sizeof user, host, sizeof host,
                        &port, resource, sizeof resource) < HTTP_URI_STATUS_OK)
        return false;
    const char* name = std::strrchr(resource, '/');
    return name != nullptr && strcasecmp(name + 1, queue.c_str()) == 0;
}

DWORD ListPrinters(const PrintServerCall& call, std::vector<Printer>* printers) {
    Connection connection(call);
    Message request = connection.Request(IPP_OP_CUPS_GET_PRINTERS, nullptr);
    AskFor(request, kPrinterAttributes);
    ipp_status_t status{};
    const Message answer = connection.Ask(std::move(request), &status);
    const DWORD error = ErrorOf(status, answer, connection);
    if (error == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS; // it has none
    if (error == ERROR_SUCCESS)
        ForEach(answer, IPP_TAG_PRINTER,
                [&](const Attributes& attributes) { printers->push_back(PrinterOf(attributes)); });
    return error;
}

DWORD ReadPrinter(const PrintServerCall& call, const std::string& name, Printer* printer) {
    Connection connection(call);
    Message request = connection.Request(IPP_OP_GET_PRINTER_ATTRIBUTES, name.c_str());
    AskFor(request, kPrinterAttributes);
    ipp_status_t status{};
    const Message answer = connection.Ask(std::move(request), &status);
    const DWORD error = ErrorOf(status, answer, connection);
    if (error == ERROR_SUCCESS)
        ForEach(answer, IPP_TAG_PRINTER, [&](const Attributes& attributes) { *printer = PrinterOf(attributes); });
    const bool unknown = error == ERROR_FILE_NOT_FOUND || (error == ERROR_SUCCESS && printer->Name().empty());
    return unknown ? DWORD{ERROR_INVALID_PRINTER_NAME} : error;
}

DWORD ListJobs(const PrintServerCall& call, const std::string& name, DWORD most, std::vector<Job>* jobs) {
    Connection connection(call);
    Message request = connection.Request(IPP_OP_GET_JOBS, name.c_str());
    ippAddString(request.get(), IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "which-jobs", nullptr, "not-completed");
    if (most <= INT32_MAX)
        ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_INTEGER, "limit", static_cast<int>(most));
    AskFor(request, kJobAttributes);
    ipp_status_t status{};
    const Message answer = connection.Ask(std::move(request), &status);
    const DWORD error = ErrorOf(status, answer, connection);
    if (error == ERROR_FILE_NOT_FOUND) return ERROR_PRINTER_DELETED;
    if (error == ERROR_SUCCESS)
        ForEach(answer, IPP_TAG_JOB, [&](const Attributes& attributes) { jobs->push_back(JobOf(attributes)); });
    return error;
}

Message JobRequest(const Connection& connection, ipp_op_t operation, const std::string& name, DWORD job) {
    Message request = connection.Request(operation, name.c_str());
    ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", static_cast<int>(job));
    return request;
}

ipp_op_t OperationOf(JobCommand command) {
    switch (command) {
    case JobCommand::Pause:
        return IPP_OP_HOLD_JOB;
    case JobCommand::Resume:
        return IPP_OP_RELEASE_JOB;
    case JobCommand::Cancel:
        return IPP_OP_CANCEL_JOB;
    }
    return IPP_OP_CUPS_NONE;
}

DWORD ChangeJob(const PrintServerCall& call, const std::string& name, DWORD job, JobCommand command) {
    if (job == 0 || job > INT32_MAX) return ERROR_INVALID_PARAMETER;
    Connection connection(call);
    // The server searches all its queues for the number.
    Message question = JobRequest(connection, IPP_OP_GET_JOB_ATTRIBUTES, name, job);
    AskFor(question, kJobAttributes);
    ipp_status_t status{};
    const Message known = connection.Ask(std::move(question), &status);
    DWORD error = ErrorOf(status, known, connection);
    if (error == ERROR_FILE_NOT_FOUND) return ERROR_INVALID_PARAMETER;
    if (error != ERROR_SUCCESS) return error;
    bool waits = false;
    bool isOwn = call.mayAll;
    ForEach(known, IPP_TAG_JOB, [&](const Attributes& attributes) {
        waits = IsOf(attributes, name) && attributes.Number("job-state") <= IPP_JSTATE_STOPPED;
        isOwn = isOwn || attributes.Text("job-originating-user-name") == call.user;
    });
    if (!waits) return ERROR_INVALID_PARAMETER;

    const Message answer = connection.Ask(JobRequest(connection, OperationOf(command), name, job), &status);
    error = ErrorOf(status, answer, connection);
    // For a job that is not held the server reports that before it checks the owner.
    if (status == IPP_STATUS_ERROR_NOT_POSSIBLE && command == JobCommand::Resume)
        return isOwn ? DWORD{ERROR_SUCCESS} : DWORD{ERROR_ACCESS_DENIED};
    return error == ERROR_FILE_NOT_FOUND ? DWORD{ERROR_INVALID_PARAMETER} : error;
}

// ---- discovery

struct Found {
    std::mutex lock;
    std::condition_variable ended;
    bool over = false;
    std::vector<Printer> printers;
};

// The queues of the server, which may be none, and printers that announce themselves. Who waits for an Avahi that
// stands still is left behind.
DWORD Discover(const PrintServerCall& call, std::vector<Printer>* printers) {
    constexpr int kAnnouncementsMs = 2500;
    const auto found = std::make_shared<Found>();
    std::thread([found] {
        const SigpipeHold hold;
        const auto take = [&](std::vector<Printer> announced) {
            const std::lock_guard hold(found->lock);
            found->printers = std::move(announced);
        };
        try {
            FindAnnounced(kAnnouncementsMs, take);
        } catch (const std::bad_alloc&) { // those that were found are told
        }
        const std::lock_guard over(found->lock);
        found->over = true;
        found->ended.notify_one();
    }).detach();
    if (ListPrinters(call, printers) != ERROR_SUCCESS) printers->clear();
    std::unique_lock hold(found->lock);
    const std::chrono::steady_clock::time_point deadline{std::chrono::nanoseconds(call.deadlineNs)};
    found->ended.wait_until(hold, deadline, [&] { return found->over; });
    printers->insert(printers->end(), found->printers.begin(), found->printers.end());
    return ERROR_SUCCESS;
}

// ---- watches

DWORD WatchPrinters(const PrintServerCall& call, void (*changed)(void*), void* context, void** watch) {
    auto made = std::make_unique<Watch>(call, changed, context);
    const DWORD error = made->Begin();
    if (error == ERROR_SUCCESS) *watch = made.release();
    return error;
}

// Throws only on lack of memory.
template <auto procedure, typename... Arguments>
DWORD Only(Arguments... arguments) {
    try {
        return procedure(arguments...);
    } catch (const std::system_error&) {
        return ERROR_NO_SYSTEM_RESOURCES;
    }
}

constexpr PrintServerModule kModule{
    .size = sizeof(PrintServerModule),
    .listPrinters = Only<ListPrinters, const PrintServerCall&, std::vector<Printer>*>,
    .readPrinter = Only<ReadPrinter, const PrintServerCall&, const std::string&, Printer*>,
    .listJobs = Only<ListJobs, const PrintServerCall&, const std::string&, DWORD, std::vector<Job>*>,
    .changeJob = Only<ChangeJob, const PrintServerCall&, const std::string&, DWORD, JobCommand>,
    .discover = Only<Discover, const PrintServerCall&, std::vector<Printer>*>,
    .watch = Only<WatchPrinters, const PrintServerCall&, void (*)(void*), void*, void**>,
    .endWatch = [](void* watch) { delete static_cast<Watch*>(watch); },
};

} // namespace
} // namespace oriel

extern "C" __attribute__((visibility("default"))) const oriel::PrintServerModule* OrielPrintServerModule() {
    return &oriel::kModule;
}

// jobs, pause, resume, cancel, print: the jobs of one printer, in the spooler and in the product's queues. No state.
#include "commands/commands.h"

#include "base/files.h"
#include "base/jobs.h"
#include "base/opened_printer.h"
#include "base/printer_side_states.h"
#include "base/printers.h"
#include "base/spooler.h"

#include "product/variable_names.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kTitleMax = 1023;

constexpr struct {
    const char* variable;
    const char* key;
} kQueues[] = {{names::kPrinterQueue, "printerQueue"}, {names::kSpoolerQueue, "spoolerQueue"}};

Json ValueJson(const OpenedPrinter& printer, const char* name) {
    return ToJson(Decode(printer.variables, FindNamed(printer, name, "read"), ValueOf(printer, name)));
}

// Why no printer side takes the printer's jobs now, and what to do about it; nothing when one does.
std::optional<Failure> WhyNothingPrints(const std::string& printer) {
    Failure failure{Exit::False, "the job waits, and nothing prints it", "the printer has no device",
                    "give it one: oriel printers add NAME --driver DRIVER --script FILE"};
    const std::vector<Printer> printers = PrintersWithDevice();
    const auto known = std::find_if(printers.begin(), printers.end(), [&](const Printer& candidate) {
        return lstrcmpiA(candidate.name.c_str(), printer.c_str()) == 0;
    });
    if (known == printers.end()) return failure;
    if (ScriptOf(*known).empty()) {
        failure.why = "a printer on the network gets its jobs from a print server";
        failure.next = "print through CUPS: lp -d QUEUE FILE";
        return failure;
    }
    failure.why = "its printer side does not run";
    failure.next = "start the product: oriel up";
    for (const PrinterSideState& side : ReadPrinterSideStates()) {
        if (lstrcmpiA(side.printer.c_str(), printer.c_str()) != 0) continue;
        if (side.state == SideState::Running) return std::nullopt;
        failure.why += ": " + WhyNotRunning(side);
        failure.next = "'oriel printers' shows its state";
    }
    return failure;
}

} // namespace

Exit JobsCommand(const ManagerOptions& options) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    const PrinterHandle spooler = SpoolerPrinterOf(printer);
    Json document{{"printer", printer.shownName}, {"spooler", nullptr}};
    Table table{{{"WHERE", "JOB", "OWNER", "STATUS", "SUBMITTED (UTC)", "TITLE"}}};
    if (spooler) {
        Json list = Json::array();
        for (const SpoolerJob& job : ListJobs(spooler.Get(), printer.shownName)) {
            const std::string title = ToUtf8(job.document), user = ToUtf8(job.user);
            const std::string submitted = TimeText(job.submitted);
            list.push_back({{"job", job.id},
                            {"title", title},
                            {"owner", user},
                            {"dataType", ToUtf8(job.dataType)},
                            {"paused", (job.status & JOB_STATUS_PAUSED) != 0},
                            {"status", job.status},
                            {"submitted", submitted}});
            table.rows.push_back({"spooler", std::to_string(job.id), Printable(user), JobStatusText(job.status),
                                  submitted, Printable(title)});
        }
        document["spooler"] = list;
    }
    const uint32_t sending = JobIn(printer, names::kSendingJobInfo);
    const uint32_t printing = JobIn(printer, names::kPrintingJobInfo);
    for (const auto& queue : kQueues) {
        Json jobs = ValueJson(printer, queue.variable);
        if (!jobs.is_array()) jobs = Json::array(); // no queue has been stored yet
        for (const Json& job : jobs) {
            const uint32_t id = job["jobId"].is_null() ? UINT32_MAX : job["jobId"].get<uint32_t>();
            table.rows.push_back({queue.variable, std::to_string(id), Printable(job["ownerName"].get<std::string>()),
                                  id == printing  ? "printing"
                                  : id == sending ? "sending"
                                                  : "",
                                  "", Printable(job["jobName"].get<std::string>())});
        }
        document[queue.key] = std::move(jobs);
    }
    document["sending"] = sending;
    document["printing"] = printing;
    document["printingMyJob"] = ValueJson(printer, names::kPrintingMyJob);
    document["spoolingMyJob"] = ValueJson(printer, names::kSpoolingMyJob);
    if (g_output.json) {
        PrintJson(document);
    } else if (table.rows.size() > 1) {
        table.Print();
    } else {
        PrintLine(spooler ? "no jobs" : "no jobs; the spooler does not know the printer");
    }
    return Exit::Done;
}

Exit SetJobCommand(const ManagerOptions& options, bool pause) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    const uint32_t id = PauseSentJob(printer, pause);
    if (g_output.json) PrintJson({{"printer", printer.shownName}, {"job", id}, {"paused", pause}});
    return Exit::Done;
}

Exit CancelCommand(const ManagerOptions& options, uint32_t id) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    CancelJob(printer, id);
    if (g_output.json) PrintJson({{"printer", printer.shownName}, {"cancelled", id}});
    return Exit::Done;
}

Exit PrintCommand(const PrintJob& wanted) {
    const std::string name = KnownPrinterName(RequirePrinterText(wanted.printer, "the printer name"));
    std::string title = wanted.title;
    if (title.empty())
        title = wanted.file == "-" ? "standard input" : wanted.file.substr(wanted.file.find_last_of("/\\") + 1);
    const std::string titleText = RequireAnsi(title, "the title");
    if (titleText.size() > kTitleMax) throw UsageFailure("a title has at most " + std::to_string(kTitleMax) + " bytes");
    const std::string content = ReadWholeFile(wanted.file);
    const std::string what = "cannot print on \"" + ToUtf8(name) + "\"";
    const PrinterHandle printer = OpenInSpooler(name);
    if (!printer) throw SystemFailure(ERROR_INVALID_PRINTER_NAME, what);
    const uint32_t job = SpoolDocument(printer.Get(), titleText, content, wanted.held, what);
    const std::optional<Failure> nothing = WhyNothingPrints(name);
    if (g_output.json) {
        Json document{{"printer", ToUtf8(name)}, {"job", job},        {"title", title}, {"bytes", content.size()},
                      {"paused", wanted.held},   {"prints", !nothing}};
        if (nothing) document["why"] = nothing->why;
        PrintJson(document);
    } else {
        PrintLine(std::to_string(job));
    }
    if (nothing) PrintError(*nothing);
    return Exit::Done; // it is spooled
}

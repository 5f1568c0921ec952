// doctor: what keeps a printer from being watched or from printing. The checks go from the outside in; the first that
// fails is the cause, since those behind it may fail because of it. No state.
#include "commands/commands.h"

#include "base/device_state.h"
#include "base/opened_printer.h"
#include "base/printer_side_states.h"
#include "base/printers.h"
#include "base/product.h"
#include "base/service_client.h"
#include "base/spooler.h"

#include "product/conditions.h"
#include "product/variable_names.h"

#include <algorithm>
#include <cstring>

namespace {

enum class Result { Ok, Bad, Skipped };

struct Finding {
    Result result = Result::Ok;
    std::string text{};   // what was found
    std::string remedy{}; // of a bad one
};

Finding Ok(std::string text = "") {
    return {Result::Ok, std::move(text)};
}
Finding Bad(std::string text, std::string remedy) {
    return {Result::Bad, std::move(text), std::move(remedy)};
}
Finding Skipped(std::string text) {
    return {Result::Skipped, std::move(text)};
}

// What the checks of one printer have found out so far.
struct Patient {
    std::string name; // UTF-8; empty: only the product is examined
    bool serviceAnswers = false;
    std::optional<Printer> printer{};
    std::optional<OpenedPrinter> opened{};
    std::optional<DeviceRecord> device{};

    bool HasDevice() const { return printer && !printer->device.empty(); }
    bool IsScript() const { return printer && !ScriptOf(*printer).empty(); }
    std::string Name() const { return RequireAnsi(name, "the printer name"); }
};

constexpr char kNoService[] = "the service does not answer";
constexpr char kNoDevice[] = "the printer has no device";
constexpr char kNothingTold[] = "its device has told nothing";

// ---- the product

Finding CheckInstalled(Patient&) {
    const std::optional<std::string> directory = InstalledDirectory();
    if (!directory) return Bad("no product is registered", HowToStart());
    if (!FileExists((*directory + kServiceProgram).c_str()))
        return Bad(std::string("the registered directory has no ") + kServiceProgram,
                   "install the product again, then run 'oriel up'");
    return Ok();
}

Finding CheckService(Patient& patient) {
    const DWORD state = ServiceState();
    if (state != SERVICE_RUNNING)
        return Bad(std::string("the status database service is ") + ServiceStateName(state), HowToStart());
    patient.serviceAnswers = !RunningInstance().empty();
    return patient.serviceAnswers ? Ok()
                                  : Bad("the status database service runs but does not answer",
                                        "restart the product; its log says what happened");
}

Finding CheckInitialised(Patient& patient) {
    if (!patient.serviceAnswers) return Skipped(kNoService);
    return ProductInitialised() ? Ok() : Bad("only the service runs, so nothing starts printer sides", HowToStart());
}

// ---- the queue

Finding CheckQueue(Patient& patient) {
    try {
        const std::string name = KnownPrinterName(patient.name);
        for (const Printer& printer : ListPrinters())
            if (printer.name == name) patient.printer = printer;
    } catch (const Failure& failure) {
        return Bad(failure.why.empty() ? failure.what : failure.why,
                   failure.next.empty() ? "list them with 'oriel printers'" : failure.next);
    }
    if (!patient.printer) return Bad("there is no such printer", "list them with 'oriel printers'");
    return patient.printer->inSpooler
               ? Ok()
               : Bad("the spooler does not know the printer", "add it with 'oriel printers add', or remove it");
}

// The status of the spooler's printer. Nothing: it cannot be asked.
std::optional<DWORD> SpoolerStatusOf(const Patient& patient) {
    try {
        const PrinterHandle printer = OpenInSpooler(patient.printer->name);
        if (!printer) return std::nullopt;
        const auto buffer = SpoolerRecords(
            [&](LPBYTE into, DWORD size, LPDWORD needed) { return GetPrinterA(printer.Get(), 2, into, size, needed); });
        if (!buffer) return std::nullopt;
        return reinterpret_cast<const PRINTER_INFO_2A*>(buffer->data())->Status;
    } catch (const Failure&) {
        return std::nullopt;
    }
}

Finding CheckBit(const Patient& patient, DWORD bit, const char* text, const char* remedy) {
    const std::optional<DWORD> status = SpoolerStatusOf(patient);
    if (!status) return Bad("the spooler does not tell", "see whether the print server runs: lpstat -r");
    return (*status & bit) == 0 ? Ok() : Bad(text, std::string(remedy) + " '" + patient.name + "'");
}

Finding CheckAccepting(Patient& patient) {
    return CheckBit(patient, PRINTER_STATUS_NOT_AVAILABLE, "the queue accepts no jobs", "cupsaccept");
}

Finding CheckPaused(Patient& patient) {
    return CheckBit(patient, PRINTER_STATUS_PAUSED, "the queue is paused: jobs wait", "cupsenable");
}

// ---- the device

Finding CheckSide(Patient& patient) {
    if (!patient.HasDevice()) return Skipped(kNoDevice);
    for (const PrinterSideState& side : ReadPrinterSideStates()) {
        if (side.printer != patient.printer->name) continue;
        if (side.state == SideState::Running) return Ok();
        return Bad("its printer side does not run: " + WhyNotRunning(side),
                   "the output of 'oriel up' has the printer side's own messages");
    }
    return Bad("it has no printer side", "'oriel up' starts one within 2 s; see whether it runs: oriel status");
}

Finding CheckReachable(Patient& patient) {
    if (!patient.HasDevice()) return Skipped(kNoDevice);
    if (patient.IsScript()) return Skipped("the device is a script");
    patient.device = AskDeviceState(patient.printer->name);
    if (!patient.device) return Bad("its printer side has not told anything yet", "wait some seconds and try again");
    if (patient.device->up != 0) return Ok(DeviceText(*patient.device));
    return Bad("the device " + DeviceText(*patient.device),
               "see that it is switched on and connected, and that its address is right: oriel printers");
}

Finding CheckFresh(Patient& patient) {
    if (!patient.device) return Skipped(patient.HasDevice() ? kNothingTold : kNoDevice);
    return IsStale(*patient.device)
               ? Bad("its values are stale: the device " + DeviceText(*patient.device), "restart its printer side")
               : Ok();
}

// What people do about a cause; the index is product::Cause.
constexpr const char* kRemedies[] = {
    "see what its display says",
    "open it and pull the paper out",
    "put paper in, and see that each tray is in its place",
    "close its covers",
    "replace the toner or ink",
    "empty the output tray",
    "put paper of the wanted size in",
    "call for service",
};
static_assert(std::size(kRemedies) == static_cast<size_t>(product::Cause::ServiceNeeded) + 1);

// The words of "PrinterStatus" as they are stored; empty: not readable.
std::vector<uint32_t> StatusWords(const Patient& patient) {
    const Variable& variable = FindNamed(*patient.opened, names::kPrinterStatus, "read");
    const Reading reading = ReadValue(*patient.opened, variable, false);
    std::vector<uint32_t> words(reading.status == TVS_OK ? reading.value.size() / sizeof(uint32_t) : 0);
    if (!words.empty()) std::memcpy(words.data(), reading.value.data(), words.size() * sizeof(uint32_t));
    return words;
}

Finding CheckState(Patient& patient) {
    if (!patient.serviceAnswers) return Skipped(kNoService);
    try {
        patient.opened = OpenPrinterOf({.printer = patient.name});
    } catch (const Failure& failure) {
        return Bad(FailureLine(failure), failure.next.empty() ? "see 'oriel status'" : failure.next);
    }
    const std::vector<uint32_t> words = StatusWords(patient);
    constexpr uint32_t kBad = product::kStatusError | product::kStatusNoAnswer | product::kStatusAcceptsNoJobs;
    constexpr size_t kCauseAt = 1;
    if (words.empty() || words[0] == UINT32_MAX) return Skipped("nobody has told the printer's state yet");
    const auto* bytes = reinterpret_cast<const BYTE*>(words.data());
    const product::VariableMeaning* meaning = product::MeaningOf(names::kPrinterStatus);
    const std::string text = product::Explain(*meaning, bytes, words.size() * sizeof(uint32_t)).words;
    const uint32_t cause = words.size() > kCauseAt && words[kCauseAt] < std::size(kRemedies) ? words[kCauseAt] : 0;
    return (words[0] & kBad) == 0 && cause == 0 ? Ok(text) : Bad("the printer says: " + text, kRemedies[cause]);
}

// ---- the user

Finding CheckRights(Patient& patient) {
    if (!patient.opened) return Skipped(kNoService);
    const Bytes list = ServiceDatabase(*patient.opened, "cannot read the rights").TryRead(names::kAccessControlList);
    constexpr size_t kNoEntries = 2 * sizeof(uint32_t);
    if (list.size() <= kNoEntries)
        return Ok("the printer has no access control list: all read, nobody asks it directly");
    const Variable& variable = FindNamed(*patient.opened, names::kUserAuthority, "read");
    const Reading reading = ReadValue(*patient.opened, variable, false);
    uint32_t rights = 0;
    if (reading.status != TVS_OK || reading.value.size() != sizeof rights) return Skipped("they cannot be read");
    std::memcpy(&rights, reading.value.data(), sizeof rights);
    if ((rights & TVS_AUTHORITY_DIRECT_READ) != 0) return Ok();
    return Bad("you may read what is stored, but not ask the printer",
               "an administrator gives rights: 'oriel authority --explain' and 'oriel acl set'");
}

// ---- the table

struct Check {
    const char* id;   // --json
    const char* what; // for people
    Finding (*look)(Patient& patient);
    Exit exitCode; // of the first that fails
    bool ofPrinter = true;
};
constexpr Check kChecks[] = {
    {"installed", "the product is installed", CheckInstalled, Exit::NoService, false},
    {"service", "the service answers", CheckService, Exit::NoService, false},
    {"up", "the product is up", CheckInitialised, Exit::NoService, false},
    {"queue", "the printer exists", CheckQueue, Exit::False},
    {"accepting", "its queue accepts jobs", CheckAccepting, Exit::False},
    {"paused", "its queue is not paused", CheckPaused, Exit::False},
    {"side", "its printer side runs", CheckSide, Exit::False},
    {"reachable", "its device answers", CheckReachable, Exit::TimedOut},
    {"state", "the printer is ready", CheckState, Exit::False},
    {"rights", "you may ask the printer", CheckRights, Exit::Denied},
    {"fresh", "its values are fresh", CheckFresh, Exit::TimedOut},
};

const char* NameOf(Result result) {
    switch (result) {
    case Result::Ok:
        return "ok";
    case Result::Bad:
        return "bad";
    case Result::Skipped:
        return "skipped";
    }
    return "";
}

std::string Mark(Result result) {
    const Style style = result == Result::Ok ? Style::Good : result == Result::Bad ? Style::Bad : Style::Faint;
    return Styled(NameOf(result), style);
}

// Runs the checks of the product or of one printer. The exit code of the first that fails.
Exit Examine(Patient& patient, bool ofPrinter, Json& checks, Json& cause) {
    Exit exitCode = Exit::Done;
    Table table;
    std::string remedy, why;
    for (const Check& check : kChecks) {
        if (check.ofPrinter != ofPrinter) continue;
        const bool known = !ofPrinter || check.look == CheckQueue || patient.printer;
        const Finding finding = known ? check.look(patient) : Skipped("there is no such printer");
        checks.push_back({{"check", check.id},
                          {"result", NameOf(finding.result)},
                          {"text", finding.text},
                          {"remedy", finding.remedy}});
        table.rows.push_back({"  " + Mark(finding.result), check.what, Printable(finding.text)});
        if (finding.result != Result::Bad || exitCode != Exit::Done) continue;
        exitCode = check.exitCode;
        cause = {{"check", check.id}, {"text", finding.text}, {"remedy", finding.remedy}};
        why = finding.text;
        remedy = finding.remedy;
    }
    if (g_output.json) return exitCode;
    PrintLine(Styled(ofPrinter ? Printable(patient.name) : "product", Style::Name));
    table.Print(false);
    if (exitCode != Exit::Done) PrintLine("  " + Styled(Printable(why), Style::Bad) + "; " + Printable(remedy));
    return exitCode;
}

} // namespace

Exit DoctorCommand(const std::string& printer) {
    Patient product;
    Json checks = Json::array(), cause = nullptr, list = Json::array();
    Exit exitCode = Examine(product, false, checks, cause);
    std::vector<std::string> names;
    if (!printer.empty())
        names.push_back(printer);
    else
        for (const Printer& each : ListPrinters())
            names.push_back(ToUtf8(each.name));
    for (const std::string& name : names) {
        Patient patient{.name = name, .serviceAnswers = product.serviceAnswers};
        Json own = Json::array(), ownCause = nullptr;
        const Exit found = Examine(patient, true, own, ownCause);
        if (exitCode == Exit::Done) exitCode = found;
        list.push_back({{"printer", name}, {"cause", ownCause}, {"checks", own}});
    }
    if (g_output.json)
        PrintJson({{"exitCode", static_cast<int>(exitCode)}, {"cause", cause}, {"checks", checks}, {"printers", list}});
    return exitCode;
}

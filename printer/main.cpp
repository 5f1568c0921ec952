// TVSPSD.EXE, the printer side of one printer, or of many on the network: a program that `oriel up` starts for printers
// that have a device.
//
//     TVSPSD.EXE --printer NAME --device ADDRESS [--poll MS] [--port NAME] [--owner PROCESS] [--stop-event NAME]
//     TVSPSD.EXE --printer NAME --script FILE [--speed N] ...
//     TVSPSD.EXE --hosted TABLE [--owner PROCESS] [--stop-event NAME]
//     TVSPSD.EXE --check --device ADDRESS
//
// ADDRESS: ipp://HOST/PATH, ipps://HOST/PATH, snmp://HOST, cups:QUEUE, script:FILE, which is the same as --script FILE.
//
// Ends with 0 when it was asked to stop (Ctrl-C, Ctrl-Break, the owner's end, or by the service, when an administrator
// ends all managers of the machine), 1 when it cannot begin, 2 when the command line or the script is wrong. State: the
// stop event, which the console's handler and a waiting thread set, and the handles that this thread waits for.
#include "host.h"
#include "network_device.h"
#include "network_side.h"
#include "scripted_device.h"
#include "text.h"

#include "product/client.h"
#include "product/guards.h"
#include "product/log.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>

namespace {

constexpr int kWrong = 2;
constexpr SIZE_T kPrinterNameMax = 259;
constexpr DWORD kSpeedMax = 10000;
constexpr DWORD kStopMs = 10000; // longer than the end of the service takes

HANDLE g_stop = nullptr;
HANDLE g_endings[2] = {}; // an owner's process; a stop event of its own
DWORD g_endingCount = 0;

BOOL WINAPI OnConsoleControl(DWORD event) {
    SetEvent(g_stop);
    // After other events the system ends the process as soon as this returns. The main thread ends it first.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(kStopMs);
    return TRUE;
}

DWORD WINAPI WaitForEnding(LPVOID) {
    WaitForMultipleObjects(g_endingCount, g_endings, FALSE, INFINITE); // unbounded: for the life of the process
    SetEvent(g_stop);
    return 0;
}

// False when the owner, if one is given, has ended, or the event does not exist.
bool FollowEndings(DWORD owner, const std::string& stopEvent) {
    if (owner != 0) g_endings[g_endingCount++] = OpenProcess(SYNCHRONIZE, FALSE, owner);
    if (!stopEvent.empty()) g_endings[g_endingCount++] = OpenEventA(SYNCHRONIZE, FALSE, stopEvent.c_str());
    if (g_endingCount == 0) return true;
    if (std::count(g_endings, g_endings + g_endingCount, HANDLE{}) != 0) return false;
    const KernelHandle thread(CreateThread(nullptr, 0, WaitForEnding, nullptr, 0, nullptr));
    return static_cast<bool>(thread);
}

int Complain(const std::string& text) {
    product::Log(product::LogLevel::Error, text);
    return kWrong;
}

struct CommandLine {
    PrinterSideOptions side;
    std::string script;
    std::string device;
    DWORD pollMs = kPollMs;
    DWORD speed = 1;
    DWORD owner = 0;
    std::string stopEvent;
    std::string hosted;
    bool check = false;
    bool quiet = false;
};

// Of an option that is given twice the last one counts.
void AddOptions(CLI::App& app, CommandLine& line) {
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--script", line.script, "what the printer has and does (docs/printer.md)")->type_name("FILE");
    app.add_option("--device", line.device, "the printer's address, ipp://HOST/PATH and the like, or script:FILE")
        ->type_name("ADDRESS");
    app.add_option("--poll", line.pollMs, "ask a printer that does nothing so often")
        ->type_name("MS")
        ->check(CLI::Range(kPollMinMs, kPollMaxMs));
    app.add_option("--printer", line.side.printer, "the printer to serve")->type_name("NAME");
    app.add_option("--port", line.side.port, "its port, unless the script sets \"Port\"")->type_name("NAME");
    app.add_option("--speed", line.speed, "run the script so many times faster")
        ->type_name("N")
        ->check(CLI::Range(DWORD{1}, kSpeedMax));
    app.add_option("--owner", line.owner, "end with this process")
        ->type_name("PROCESS")
        ->check(CLI::Range(DWORD{1}, std::numeric_limits<DWORD>::max()));
    app.add_option("--stop-event", line.stopEvent, "end when this event is set")->type_name("NAME");
    app.add_option("--hosted", line.hosted, "serve the printers on the network that this table lists")
        ->type_name("NAME");
    app.add_flag("--quiet", line.quiet, "with --check: do not print what the device tells");
    app.add_flag("--check", line.check, "only check the script, or ask the device once");
}

// kStopped, or kWrong after the reason was logged. *help: help was requested and printed.
int ReadCommandLine(int count, char** words, CommandLine* line, bool* help) {
    CLI::App app("The printer side of one printer, or of many on the network.", "TVSPSD.EXE");
    AddOptions(app, *line);
    try {
        app.parse(count, words);
    } catch (const CLI::Success& wanted) {
        *help = true;
        return app.exit(wanted);
    } catch (const CLI::ParseError& error) {
        return Complain(error.what());
    }
    // Names are in the ANSI code page. A command line is in that or in UTF-8, depending on the system.
    line->side.printer = ToAnsi(line->side.printer);
    line->side.port = ToAnsi(line->side.port);
    constexpr std::string_view kScript = "script:";
    if (line->device.starts_with(kScript)) {
        line->script = line->device.substr(kScript.size());
        line->device.clear();
    }
    if (!line->hosted.empty()) return kStopped;
    line->side.ofPrintServer = IsQueue(line->device);
    if (line->script.empty() == line->device.empty()) return Complain("give one of --device and --script");
    if (!line->device.empty() && !IsNetworkDevice(line->device))
        return Complain("\"" + line->device + "\" is no address of a device, such as ipp://printer/ipp/print");
    if (!line->check && (line->side.printer.empty() || line->side.printer.size() > kPrinterNameMax))
        return Complain("--printer NAME is missing or too long");
    return kStopped;
}

// kStopped, or kWrong after the reason was logged.
int ReadScriptFile(const std::string& path, std::vector<Statement>* statements) {
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file.good() && !file.eof()) return Complain("cannot read " + path);
    std::vector<std::string> errors;
    *statements = ReadScript(text, path.substr(path.find_last_of("/\\") + 1), &errors);
    for (const std::string& error : errors)
        Complain(error);
    return errors.empty() ? kStopped : kWrong;
}

// ---- running

// Prints what the printer tells, a value a line.
int TryDevice(const CommandLine& line) {
    constexpr DWORD kMarginMs = 1000;
    const bool queue = IsQueue(line.device);
    NetworkPrinter printer{.uri = queue ? DeviceOfQueue(line.device, kDeviceLimitMs, nullptr).uri : line.device};
    if (queue && !line.quiet) std::cout << "device: " << printer.uri << "\n";
    if (const std::string failure = OpenNetworkPrinter(printer); !failure.empty()) return Complain(failure);
    const devices::Answer answer = TryNetworkPrinter(printer, kDeviceLimitMs + kMarginMs, nullptr);
    CloseNetworkPrinter(printer);
    if (answer.outcome != devices::Outcome::Answered) {
        Complain(answer.trouble);
        return kCannotBegin;
    }
    const devices::Identity identity = answer.reading.identity.value_or(devices::Identity());
    const auto say = [&](const char* what, const std::string& text) {
        if (!text.empty() && !line.quiet) std::cout << what << ": " << text << "\n";
    };
    say("manufacturer", identity.manufacturer);
    say("model", identity.model);
    say("serial number", identity.serial);
    say("location", identity.location);
    for (const devices::Tray& tray : answer.reading.trays)
        say("tray", tray.name + (tray.media.empty() ? "" : ", " + tray.media));
    for (const devices::Supply& supply : answer.reading.supplies)
        say("supply", supply.name + (supply.percent < 0 ? "" : ", " + std::to_string(supply.percent) + " %"));
    say("says", answer.reading.display);
    say("certificate", answer.certificate);
    return kStopped;
}

int ServeScript(const CommandLine& line, ScriptedPrinter& printer) {
    return ServeDevice(line.side, DeviceOf(printer), g_stop);
}

int Run(const CommandLine& line) {
    ScriptedPrinter printer;
    printer.speed = line.speed;
    if (line.device.empty() && line.hosted.empty()) {
        if (const int result = ReadScriptFile(line.script, &printer.statements); result != kStopped || line.check)
            return result;
    } else if (line.check) {
        return TryDevice(line);
    }
    g_stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (!g_stop || !SetConsoleCtrlHandler(OnConsoleControl, TRUE) || !BindStatusDatabase() ||
        !FollowEndings(line.owner, line.stopEvent)) {
        Complain("cannot begin, system error " + std::to_string(GetLastError()));
        return kCannotBegin;
    }
    const int result = !line.hosted.empty()  ? ServeHostedPrinters(line.hosted, g_stop)
                       : line.device.empty() ? ServeScript(line, printer)
                                             : ServeNetworkPrinter(line.side, line.device, line.pollMs, g_stop);
    UnbindStatusDatabase();
    return result;
}

} // namespace

int main(int count, char** words) {
    product::NameLog("TVSPSD");
    CommandLine line;
    bool help = false;
    int result = ReadCommandLine(count, words, &line, &help);
    if (result == kStopped && !help) result = Run(line);
    product::EndLog();
    return result;
}

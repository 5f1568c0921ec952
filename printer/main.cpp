// TVSPSD.EXE, the printer side of one printer: a program that `oriel up` starts for each printer that has a device.
//
//     TVSPSD.EXE --printer NAME --device ADDRESS [--poll MS] [--port NAME] [--owner PROCESS] [--stop-event NAME]
//     TVSPSD.EXE --printer NAME --script FILE [--speed N] ...
//     TVSPSD.EXE --check --device ADDRESS
//
// ADDRESS: ipp://HOST/PATH, ipps://HOST/PATH, snmp://HOST, cups:QUEUE, script:FILE, which is the same as --script FILE.
//
// Ends with 0 when it was asked to stop (Ctrl-C, Ctrl-Break, the owner's end, or by the service, when an administrator
// ends all managers of the machine), 1 when it cannot begin, 2 when the command line or the script is wrong. State: the
// stop event, which the console's handler and a waiting thread set, and the handles that this thread waits for.
#include "network_device.h"
#include "printer_side.h"
#include "printer_values.h"
#include "scripted_device.h"
#include "text.h"

#include "product/client.h"
#include "product/growing_reads.h"
#include "product/guards.h"
#include "product/log.h"
#include "product/object_names.h"
#include "product/registry_names.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>

namespace {

constexpr std::string_view kQueuePrefix = "cups:"; // of a device that is a queue of the print server
constexpr int kStopped = 0;
constexpr int kCannotBegin = 1;
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
    app.add_flag("--quiet", line.quiet, "with --check: do not print what the device tells");
    app.add_flag("--check", line.check, "only check the script, or ask the device once");
}

// kStopped, or kWrong after the reason was logged. *help: help was requested and printed.
int ReadCommandLine(int count, char** words, CommandLine* line, bool* help) {
    CLI::App app("The printer side of one printer.", "TVSPSD.EXE");
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
    line->side.ofPrintServer = line->device.starts_with(kQueuePrefix);
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

// ---- the certificate of a network printer, which is trusted from the first time that it is seen

constexpr char kCertificateValue[] = "Oriel Certificate";

RegistryKey OpenPrinterKey(const std::string& printer, REGSAM access) {
    HKEY key = nullptr;
    const std::string path = std::string(kPrintersKey) + "\\" + PrinterKeyName(printer.c_str()).name;
    return RegistryKey(RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &key) == ERROR_SUCCESS ? key
                                                                                                         : nullptr);
}

std::string ReadCertificate(const std::string& printer) {
    const RegistryKey key = OpenPrinterKey(printer, KEY_QUERY_VALUE);
    char text[128] = {};
    DWORD size = sizeof text - 1;
    if (!key || RegQueryValueExA(key.Get(), kCertificateValue, nullptr, nullptr, reinterpret_cast<BYTE*>(text),
                                 &size) != ERROR_SUCCESS)
        return "";
    return text;
}

void TrustCertificate(const std::string& printer, const std::string& certificate) {
    const RegistryKey key = OpenPrinterKey(printer, KEY_SET_VALUE);
    const bool stored = key && RegSetValueExA(key.Get(), kCertificateValue, 0, REG_SZ,
                                              reinterpret_cast<const BYTE*>(certificate.c_str()),
                                              static_cast<DWORD>(certificate.size() + 1)) == ERROR_SUCCESS;
    product::Log(product::LogLevel::Note, printer + ": trusts the printer's certificate " + certificate +
                                              (stored ? "" : ", until the printer side ends"));
}

// ---- queues of the print server

// What the print server itself sends the queue's jobs to. Empty: the server does not know the queue, or is not there.
std::string DeviceUriOf(const std::string& queue) {
    std::string name = ToAnsi(queue); // the call's text is not const
    const PrinterHandle printer = OpenSpoolerPrinter(name.data());
    std::vector<BYTE> buffer;
    const auto grow = [&](DWORD size) {
        buffer.resize(size);
        return buffer.data();
    };
    if (!printer || !ReadSpoolerRecords(grow, [&](LPBYTE into, DWORD size, LPDWORD needed) {
            return GetPrinterA(printer.Get(), 2, into, size, needed);
        }))
        return "";
    return ToUtf8(reinterpret_cast<const PRINTER_INFO_2A*>(buffer.data())->pPortName);
}

// The device of a queue: the printer itself, where its address says how to ask it, else the queue.
std::string DeviceOfQueue(const std::string& device, DWORD limitMs) {
    const std::string uri = DeviceUriOf(device.substr(kQueuePrefix.size()));
    const size_t host = uri.find("://");
    if (host == uri.npos) return device;
    const std::string scheme = uri.substr(0, host);
    if (scheme == "ipp" || scheme == "ipps") return uri.substr(0, uri.find('?'));
    if (scheme != "socket" && scheme != "lpd") return device;
    // It has no way to tell anything; SNMP beside it may.
    NetworkPrinter agent{.uri = "snmp://" + HostOf(uri)};
    if (!OpenNetworkPrinter(agent).empty()) return device;
    const devices::Answer answer = TryNetworkPrinter(agent, limitMs);
    CloseNetworkPrinter(agent);
    return answer.outcome == devices::Outcome::Answered ? agent.uri : device;
}

// ---- running

// Prints what the printer tells, a value a line.
int TryDevice(const CommandLine& line) {
    constexpr DWORD kMarginMs = 1000;
    const bool queue = line.device.starts_with(kQueuePrefix);
    NetworkPrinter printer{.uri = queue ? DeviceOfQueue(line.device, kDeviceLimitMs) : line.device};
    if (queue && !line.quiet) std::cout << "device: " << printer.uri << "\n";
    if (const std::string failure = OpenNetworkPrinter(printer); !failure.empty()) return Complain(failure);
    const devices::Answer answer = TryNetworkPrinter(printer, kDeviceLimitMs + kMarginMs);
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

// What either kind of device is run with. kStopped, or the exit code after the reason was logged.
int Serve(const CommandLine& line, const Device& device) {
    const bool served = ServePrinter(line.side, device, g_stop);
    if (!served) Complain("cannot take jobs, system error " + std::to_string(GetLastError()));
    return served ? kStopped : kCannotBegin;
}

int ServeScript(const CommandLine& line, ScriptedPrinter& printer) {
    return Serve(line, DeviceOf(printer));
}

int ServeNetworkPrinter(const CommandLine& line) {
    const std::string name = line.side.printer;
    const bool queue = line.side.ofPrintServer;
    const std::string uri = queue ? DeviceOfQueue(line.device, kDeviceLimitMs) : line.device;
    NetworkPrinter printer{.uri = uri,
                           .ofPrintServer = queue,
                           // The server tells when its queue has changed.
                           .pollMs = uri.starts_with(kQueuePrefix) ? kPollMaxMs : line.pollMs,
                           .certificate = ReadCertificate(name),
                           .trusted = [name] { return ReadCertificate(name); },
                           .trust = [name](const std::string& seen) { TrustCertificate(name, seen); }};
    if (const std::string failure = OpenNetworkPrinter(printer); !failure.empty()) {
        Complain(failure);
        return kCannotBegin;
    }
    const int result = Serve(line, DeviceOf(printer));
    CloseNetworkPrinter(printer);
    return result;
}

int Run(const CommandLine& line) {
    ScriptedPrinter printer;
    printer.speed = line.speed;
    if (line.device.empty()) {
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
    const int result = line.device.empty() ? ServeScript(line, printer) : ServeNetworkPrinter(line);
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

// TVSPSD.EXE, the printer side of one printer: a program that `oriel up` starts for each printer that has a script.
//
//     TVSPSD.EXE --printer NAME --script FILE [--port NAME] [--speed N] [--owner PROCESS]
//                [--stop-event NAME]
//     TVSPSD.EXE --script FILE --check
//
// Ends with 0 when it was asked to stop (Ctrl-C, Ctrl-Break, the owner's end, or by the service, when an administrator
// ends all managers of the machine), 1 when it cannot begin, 2 when the command line or the script is wrong. State: the
// stop event, which the console's handler and a waiting thread set, and the handles that this thread waits for.
#include "printer_side.h"
#include "scripted_device.h"

#include "product/client.h"
#include "product/guards.h"
#include "product/log.h"
#include "product/object_names.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <limits>

namespace {

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
    DWORD speed = 1;
    DWORD owner = 0;
    std::string stopEvent;
    bool check = false;
};

// Names are in the ANSI code page. A command line is in that or in UTF-8, depending on the system.
std::string ToAnsi(const std::string& word) {
    const int size = static_cast<int>(word.size());
    std::vector<WCHAR> wide(word.size());
    const int length =
        size == 0 ? 0 : MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, word.data(), size, wide.data(), size);
    if (length <= 0) return word;
    std::string ansi(2 * word.size(), '\0');
    const int ansiSize = static_cast<int>(ansi.size());
    ansi.resize(static_cast<SIZE_T>(
        WideCharToMultiByte(CP_ACP, 0, wide.data(), length, ansi.data(), ansiSize, nullptr, nullptr)));
    return ansi;
}

// Of an option that is given twice the last one counts.
void AddOptions(CLI::App& app, CommandLine& line) {
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--script", line.script, "what the printer has and does (docs/printer.md)")
        ->type_name("FILE")
        ->required();
    app.add_option("--printer", line.side.printer, "the printer to serve")->type_name("NAME");
    app.add_option("--port", line.side.port, "its port, unless the script sets \"Port\"")->type_name("NAME");
    app.add_option("--speed", line.speed, "run the script so many times faster")
        ->type_name("N")
        ->check(CLI::Range(DWORD{1}, kSpeedMax));
    app.add_option("--owner", line.owner, "end with this process")
        ->type_name("PROCESS")
        ->check(CLI::Range(DWORD{1}, std::numeric_limits<DWORD>::max()));
    app.add_option("--stop-event", line.stopEvent, "end when this event is set")->type_name("NAME");
    app.add_flag("--check", line.check, "only check the script");
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
    line->side.printer = ToAnsi(line->side.printer);
    line->side.port = ToAnsi(line->side.port);
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

int Run(const CommandLine& line) {
    ScriptedPrinter printer;
    printer.speed = line.speed;
    if (const int result = ReadScriptFile(line.script, &printer.statements); result != kStopped || line.check)
        return result;
    g_stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (!g_stop || !SetConsoleCtrlHandler(OnConsoleControl, TRUE) || !BindStatusDatabase() ||
        !FollowEndings(line.owner, line.stopEvent)) {
        Complain("cannot begin, system error " + std::to_string(GetLastError()));
        return kCannotBegin;
    }
    const bool served = ServePrinter(line.side, DeviceOf(printer), g_stop);
    if (!served) Complain("cannot take jobs, system error " + std::to_string(GetLastError()));
    UnbindStatusDatabase();
    return served ? kStopped : kCannotBegin;
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

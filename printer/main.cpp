// TVSPSD.EXE, the printer side of one printer: a program that `oriel up` starts for each printer that has a script.
//
//     TVSPSD.EXE --printer NAME --script FILE [--port NAME] [--speed N] [--owner PROCESS]
//                [--stop-event NAME]
//     TVSPSD.EXE --script FILE --check
//
// Ends with 0 when it was asked to stop (Ctrl-C, Ctrl-Break, the owner's end, or by the service, when an administrator
// ends all managers of the machine), 1 when it cannot begin, 2 when the command line or the script is wrong. State: the
// stop event, set by the console's handler and by who waits for the others, each on a thread of its own; and what that
// thread waits for.
#include "printer_side.h"
#include "scripted_device.h"

#include "product/client.h"
#include "product/object_names.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <stdio.h>

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
    // After other events the process ends as soon as this returns: the main thread shall end it before.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(kStopMs);
    return TRUE;
}

DWORD WINAPI WaitForEnding(LPVOID) {
    WaitForMultipleObjects(g_endingCount, g_endings, FALSE, INFINITE); // as long as we live, if need be
    SetEvent(g_stop);
    return 0;
}

// False when the owner, if there shall be one, lives no more, or there is no such event.
bool FollowEndings(DWORD owner, const std::string& stopEvent) {
    if (owner != 0) g_endings[g_endingCount++] = OpenProcess(SYNCHRONIZE, FALSE, owner);
    if (!stopEvent.empty()) g_endings[g_endingCount++] = OpenEventA(SYNCHRONIZE, FALSE, stopEvent.c_str());
    if (g_endingCount == 0) return true;
    if (std::count(g_endings, g_endings + g_endingCount, HANDLE{}) != 0) return false;
    const HANDLE thread = CreateThread(nullptr, 0, WaitForEnding, nullptr, 0, nullptr);
    if (thread) CloseHandle(thread);
    return thread != nullptr;
}

int Complain(const std::string& text) {
    fprintf(stderr, "TVSPSD: %s\n", text.c_str());
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

bool ReadNumber(const std::string& word, DWORD* number) {
    const char* end = word.data() + word.size();
    const std::from_chars_result result = std::from_chars(word.data(), end, *number);
    return result.ec == std::errc{} && result.ptr == end;
}

// Names are in the ANSI code page, command lines in that or in UTF-8, as the system has it.
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

// Empty, or what is wrong.
std::string ReadCommandLine(int count, char** words, CommandLine* line) {
    for (int i = 1; i < count; ++i) {
        const std::string option = words[i];
        if (option == "--check") {
            line->check = true;
            continue;
        }
        if (i + 1 == count) return option + " needs something behind it, or is no option";
        const std::string value = words[++i];
        if (option == "--printer") {
            line->side.printer = ToAnsi(value);
        } else if (option == "--port") {
            line->side.port = ToAnsi(value);
        } else if (option == "--script") {
            line->script = value;
        } else if (option == "--stop-event") {
            line->stopEvent = value;
        } else if (option == "--speed") {
            if (!ReadNumber(value, &line->speed) || line->speed == 0 || line->speed > kSpeedMax)
                return "--speed takes a number from 1 to " + std::to_string(kSpeedMax);
        } else if (option == "--owner") {
            if (!ReadNumber(value, &line->owner) || line->owner == 0) return "--owner takes the number of a process";
        } else {
            return "there is no option " + option;
        }
    }
    if (line->script.empty()) return "--script FILE is missing";
    if (line->check) return "";
    if (line->side.printer.empty() || line->side.printer.size() > kPrinterNameMax)
        return "--printer NAME is missing or too long";
    return "";
}

// kStopped, or kWrong after it was told why.
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
    CommandLine line;
    const std::string wrong = ReadCommandLine(count, words, &line);
    return wrong.empty() ? Run(line) : Complain(wrong);
}

// TestProcess and the private machine over Win32: a process and its pipes are handles. Registry, services and named
// objects are those of the whole machine, so tests run one at a time, and each begins by clearing away what the one
// before has left.
#include "not_here.h"
#include "private_machine.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <io.h>
#include <psapi.h>
#include <utility>

namespace {

constexpr UINT kKilled = 137; // as a shell tells it
constexpr UINT kNotHere = 77;
const std::string kNotHereText = "not on this system: ";
bool g_isChild = false;

HANDLE HandleOf(int number) {
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(number));
}

int NumberOf(HANDLE handle) {
    return static_cast<int>(HandleToLong(handle));
}

void CloseNumber(int& number) {
    if (number != -1) CloseHandle(HandleOf(number));
    number = -1;
}

// A word of a command line as the C run-time divides it.
std::string Quoted(const std::string& word) {
    std::string quoted = "\"";
    size_t backslashes = 0;
    for (const char c : word) {
        if (c == '"') quoted.append(backslashes + 1, '\\');
        backslashes = c == '\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    quoted.append(backslashes, '\\');
    return quoted + '"';
}

// The environment of this process with those variables set, as CreateProcessA takes it.
std::string Block(const Environment& environment) {
    std::map<std::string, std::string> variables;
    char* all = GetEnvironmentStringsA();
    for (const char* at = all; *at != '\0'; at += std::strlen(at) + 1) {
        const std::string entry(at);
        const size_t end = entry.find('=', 1);
        if (end != std::string::npos) variables[entry.substr(0, end)] = entry.substr(end + 1);
    }
    FreeEnvironmentStringsA(all);
    for (const auto& [name, value] : environment)
        variables[name] = value;
    std::string block;
    for (const auto& [name, value] : variables)
        block.append(name + "=" + value).push_back('\0');
    return block + '\0';
}

// Appends what is there. False once the other side is closed and all is read.
bool Take(int pipe, std::string& text) {
    for (;;) {
        DWORD there = 0;
        if (!PeekNamedPipe(HandleOf(pipe), nullptr, 0, nullptr, &there, nullptr)) return false;
        if (there == 0) return true;
        char bytes[4096];
        DWORD count = 0;
        if (!ReadFile(HandleOf(pipe), bytes, std::min<DWORD>(there, sizeof bytes), &count, nullptr)) return false;
        for (DWORD i = 0; i < count; ++i)
            if (bytes[i] != '\r') text += bytes[i];
    }
}

// A pipe whose one end a child inherits.
bool MakePipe(HANDLE& read, HANDLE& write, bool childReads) {
    return CreatePipe(&read, &write, nullptr, 0) &&
           SetHandleInformation(childReads ? read : write, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
}

void ClearSubkeys(const char* path) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) return;
    RegDeleteTreeA(key, nullptr);
    RegCloseKey(key);
}

void DeleteServices(std::initializer_list<const char*> names) {
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    for (const char* name : names) {
        const SC_HANDLE service = OpenServiceA(manager, name, SERVICE_QUERY_STATUS | DELETE);
        if (!service) continue;
        SERVICE_STATUS_PROCESS status = {};
        DWORD needed = 0;
        QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status, &needed);
        const HANDLE process =
            status.dwProcessId == 0 ? nullptr : OpenProcess(PROCESS_TERMINATE, FALSE, status.dwProcessId);
        if (process) TerminateProcess(process, kKilled);
        if (process) CloseHandle(process);
        DeleteService(service);
        CloseServiceHandle(service);
        // It is gone once its process is, and nobody has it open.
        WaitUntil([&] {
            const SC_HANDLE still = OpenServiceA(manager, name, SERVICE_QUERY_STATUS);
            if (still) CloseServiceHandle(still);
            return still == nullptr;
        });
    }
    CloseServiceHandle(manager);
}

} // namespace

void NotHere(const std::string& what) {
    if (g_isChild) {
        std::fprintf(stderr, "%s%s", kNotHereText.c_str(), what.c_str());
        std::fflush(stderr);
        ExitProcess(kNotHere);
    }
    testing::internal::AssertHelper(testing::TestPartResult::kSkip, __FILE__, __LINE__, ("needs " + what).c_str()) =
        testing::Message();
    const testing::TestPartResult skipped(testing::TestPartResult::kSkip, __FILE__, __LINE__, what.c_str());
    throw testing::AssertionException(skipped); // GoogleTest ends the test, and reports nothing more
}

bool OnTheLayer() {
    return false;
}

void NeedsTheLayer(const char* forWhat) {
    NotHere(forWhat);
}

void TestProcess::Start(const std::string& path, const std::vector<std::string>& arguments,
                        const Environment& environment) {
    for (const auto& [name, value] : environment)
        if (name.starts_with("ORIEL_")) NotHere("the platform layer's setting " + name);
    HANDLE in[2];
    HANDLE out[2];
    HANDLE err[2];
    if (!MakePipe(in[0], in[1], true) || !MakePipe(out[0], out[1], false) || !MakePipe(err[0], err[1], false)) {
        ADD_FAILURE() << "pipes: " << GetLastError();
        return;
    }
    std::string commandLine = Quoted(path);
    for (const std::string& argument : arguments)
        commandLine += " " + Quoted(argument);
    std::string block = Block(environment);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in[0];
    startup.hStdOutput = out[1];
    startup.hStdError = err[1];
    PROCESS_INFORMATION information{};
    const BOOL started = CreateProcessA(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, block.data(),
                                        nullptr, &startup, &information);
    const DWORD error = GetLastError();
    for (const HANDLE ours : {in[0], out[1], err[1]})
        CloseHandle(ours);
    m_in = NumberOf(in[1]);
    m_out = NumberOf(out[0]);
    m_err = NumberOf(err[0]);
    if (!started) {
        ADD_FAILURE() << path << ": " << error;
        m_ended = true;
        return;
    }
    CloseHandle(information.hThread);
    m_pid = NumberOf(information.hProcess);
}

TestProcess TestProcess::Adopted(unsigned id) {
    TestProcess process;
    const HANDLE handle = OpenProcess(PROCESS_ALL_ACCESS, FALSE, id);
    EXPECT_NE(handle, nullptr) << "process " << id << ": " << GetLastError();
    process.m_pid = NumberOf(handle);
    process.m_ended = handle == nullptr;
    return process;
}

TestProcess::~TestProcess() {
    if (m_pid != -1 && !m_ended) Kill();
    if (testing::Test::HasFailure() && m_err != -1) {
        const std::string errors = Errors();
        if (!errors.empty()) std::fprintf(stderr, "--- standard error of process %u:\n%s", Id(), errors.c_str());
    }
    CloseNumber(m_in);
    CloseNumber(m_out);
    CloseNumber(m_err);
    CloseNumber(m_pid);
}

unsigned TestProcess::Id() const {
    return GetProcessId(HandleOf(m_pid));
}

size_t TestProcess::ResidentBytes() const {
    PROCESS_MEMORY_COUNTERS counters{};
    EXPECT_TRUE(GetProcessMemoryInfo(HandleOf(m_pid), &counters, sizeof counters)) << GetLastError();
    EXPECT_GT(counters.WorkingSetSize, 0u);
    return counters.WorkingSetSize;
}

bool TestProcess::Running() {
    if (m_ended || m_pid == -1) return false;
    if (WaitForSingleObject(HandleOf(m_pid), 0) == WAIT_OBJECT_0) Ended(0);
    return !m_ended;
}

void TestProcess::Ended(int) {
    DWORD code = 0;
    GetExitCodeProcess(HandleOf(m_pid), &code);
    m_ended = true;
    m_exitCode = static_cast<int>(code);
}

std::string TestProcess::Hear(int timeoutMs) {
    const double deadline = NowMs() + timeoutMs;
    for (;;) {
        const bool open = Take(m_out, m_buffer);
        const size_t end = m_buffer.find('\n');
        if (end != std::string::npos) {
            const std::string line = m_buffer.substr(0, end);
            m_buffer.erase(0, end + 1);
            return line;
        }
        if (!open) {
            if (Wait() == static_cast<int>(kNotHere))
                NotHere(Errors().substr(Errors().rfind(kNotHereText) + kNotHereText.size()));
            ADD_FAILURE() << "process " << Id() << " closed its output after: " << m_buffer << "\n" << Errors();
            return {};
        }
        if (NowMs() > deadline) {
            ADD_FAILURE() << "process " << Id() << " said nothing within " << timeoutMs << " ms";
            return {};
        }
        PauseMs(1);
    }
}

void TestProcess::Tell(const std::string& line) {
    const std::string text = line + "\n";
    DWORD count = 0;
    if (!WriteFile(HandleOf(m_in), text.data(), static_cast<DWORD>(text.size()), &count, nullptr) ||
        count != text.size())
        ADD_FAILURE() << "process " << Id() << " takes no input";
}

void TestProcess::CloseInput() {
    CloseNumber(m_in);
}

std::string TestProcess::HearAll(int timeoutMs) {
    const double deadline = NowMs() + timeoutMs;
    while (Take(m_out, m_buffer)) {
        Errors();
        if (NowMs() > deadline) {
            ADD_FAILURE() << "process " << Id() << " still runs after " << timeoutMs << " ms";
            break;
        }
        PauseMs(1);
    }
    return std::exchange(m_buffer, {});
}

std::string TestProcess::Errors() {
    Take(m_err, m_errors);
    return m_errors;
}

void TestProcess::Kill() {
    KillOnly();
    Wait();
}

void TestProcess::KillOnly() {
    if (!m_ended) TerminateProcess(HandleOf(m_pid), kKilled);
}

void TestProcess::Terminate() {
    NotHere("a way to ask a process to end");
}

void TestProcess::Interrupt() {
    NotHere("a way to interrupt a process");
}

void TestProcess::Stop() {
    using Suspend = LONG(WINAPI*)(HANDLE process);
    const auto suspend = reinterpret_cast<Suspend>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtSuspendProcess")));
    if (!suspend || suspend(HandleOf(m_pid)) != 0) NotHere("a way to suspend a process");
}

void TestProcess::Continue() {
    using Resume = LONG(WINAPI*)(HANDLE process);
    const auto resume = reinterpret_cast<Resume>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtResumeProcess")));
    if (!m_ended && resume) resume(HandleOf(m_pid));
}

int TestProcess::Wait(int timeoutMs) {
    if (!m_ended && m_pid != -1 && WaitForSingleObject(HandleOf(m_pid), static_cast<DWORD>(timeoutMs)) == WAIT_OBJECT_0)
        Ended(0);
    if (m_ended) return m_exitCode;
    ADD_FAILURE() << "process " << Id() << " still runs after " << timeoutMs << " ms";
    return -1;
}

bool RunsAsRoot() {
    return false; // nobody is
}

double NowMs() {
    LARGE_INTEGER frequency;
    LARGE_INTEGER now;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * 1e3 / static_cast<double>(frequency.QuadPart);
}

void PauseMs(int milliseconds) {
    Sleep(static_cast<DWORD>(milliseconds));
}

std::string OwnProgram() {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, sizeof path);
    return path;
}

std::string ProgramPath(const std::string& name) {
    const std::string own = OwnProgram();
    const std::string path = own.substr(0, own.rfind('\\') + 1) + name;
    return std::filesystem::exists(path) ? path : path + ".exe";
}

std::string LibraryPath(const std::string& name) {
    return ProgramPath(name);
}

void PrepareTestProgram() {
    g_isChild = std::getenv(kPrivateDirectoryVariable) != nullptr;
    for (const int stream : {0, 1, 2})
        _setmode(stream, _O_BINARY);
}

void UseSetting(const char*, const char*) {
    NeedsTheLayer("the layer's settings");
}

std::string MakePrivateMachine() {
    for (const char* key : {"A", "D", "K", "Order", "Software\\Values"})
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, key);
    ClearSubkeys("SOFTWARE\\Tavik");
    ClearSubkeys("System\\CurrentControlSet\\Control\\Print\\Printers");
    DeleteServices({"Svc", "Other", "TVORSDB"});
    char folder[MAX_PATH];
    GetTempPathA(sizeof folder, folder);
    const std::string directory = folder + ("oriel-test-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    SetEnvironmentVariableA(kPrivateDirectoryVariable, directory.c_str());
    return directory;
}

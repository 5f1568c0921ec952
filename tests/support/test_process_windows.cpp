// TestProcess and the private machine over Win32: a process and its pipes are handles. Registry, services and named
// objects are those of the whole machine, so tests run one at a time, and each begins by clearing away what the one
// before has left.
#include "not_here.h"
#include "private_machine.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <filesystem>

namespace {

constexpr UINT kKilled = 137; // as a shell tells it

HANDLE HandleOf(int number) {
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(number));
}

void ClearSubkeys(const char* path) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) return;
    RegDeleteTreeA(key, nullptr);
    RegCloseKey(key);
}

// It is gone once its process is, and nobody has it open.
void DeleteTheService(const char* name) {
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (const SC_HANDLE service = OpenServiceA(manager, name, SERVICE_QUERY_STATUS | DELETE)) {
        SERVICE_STATUS_PROCESS status = {};
        DWORD needed = 0;
        QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status, &needed);
        if (status.dwProcessId != 0) TestProcess::Adopted(status.dwProcessId).Kill();
        DeleteService(service);
        CloseServiceHandle(service);
    }
    WaitUntil([&] {
        const SC_HANDLE still = OpenServiceA(manager, name, SERVICE_QUERY_STATUS);
        if (still) CloseServiceHandle(still);
        return still == nullptr;
    });
    CloseServiceHandle(manager);
}

} // namespace

bool OnTheLayer() {
    return false;
}

void NeedsTheLayer(const char* forWhat) {
    std::printf("%s\n%s\n[  SKIPPED ]\n", kNotHereText, forWhat);
    std::fflush(stdout);
    ExitProcess(0);
}

void TestProcess::Start(const std::string& path, const std::vector<std::string>& arguments,
                        const Environment& environment) {
    if (!environment.empty()) NeedsTheLayer("settings of the layer");
    std::string commandLine = '"' + path + '"';
    for (const std::string& argument : arguments)
        commandLine += " \"" + argument + '"';
    HANDLE ours[3];
    HANDLE theirs[3];
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(i == 0 ? CreatePipe(&theirs[i], &ours[i], nullptr, 0)
                           : CreatePipe(&ours[i], &theirs[i], nullptr, 0));
        SetHandleInformation(theirs[i], HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    }
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = theirs[0];
    startup.hStdOutput = theirs[1];
    startup.hStdError = theirs[2];
    PROCESS_INFORMATION information{};
    m.ended = !CreateProcessA(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                              &information);
    EXPECT_FALSE(m.ended) << path << ": " << GetLastError();
    for (const HANDLE handle : theirs)
        CloseHandle(handle);
    m.in = HandleToLong(ours[0]);
    m.out = HandleToLong(ours[1]);
    m.err = HandleToLong(ours[2]);
    CloseHandle(information.hThread);
    m.process = HandleToLong(information.hProcess);
    m.id = information.dwProcessId;
}

TestProcess TestProcess::Adopted(unsigned id) {
    TestProcess process;
    const HANDLE handle = OpenProcess(PROCESS_ALL_ACCESS, FALSE, id);
    EXPECT_NE(handle, nullptr) << "process " << id << ": " << GetLastError();
    process.m.process = HandleToLong(handle);
    process.m.id = id;
    process.m.ended = handle == nullptr;
    return process;
}

bool TestProcess::Give(int stream, const std::string& text) {
    DWORD count = 0;
    return WriteFile(HandleOf(stream), text.data(), static_cast<DWORD>(text.size()), &count, nullptr) &&
           count == text.size();
}

bool TestProcess::Take(int stream, std::string& text, int waitMs) {
    DWORD count = 0;
    if (!PeekNamedPipe(HandleOf(stream), nullptr, 0, nullptr, &count, nullptr)) return false;
    if (count == 0 && waitMs > 0) PauseMs(1);
    if (count == 0) return true;
    std::string bytes(count, '\0');
    if (!ReadFile(HandleOf(stream), bytes.data(), count, &count, nullptr)) return false;
    for (DWORD i = 0; i < count; ++i)
        if (bytes[i] != '\r') text += bytes[i];
    return true;
}

void TestProcess::Close(int& stream) {
    if (stream != -1) CloseHandle(HandleOf(stream));
    stream = -1;
}

bool TestProcess::Running() {
    if (m.ended || WaitForSingleObject(HandleOf(m.process), 0) != WAIT_OBJECT_0) return !m.ended;
    DWORD code = 0;
    GetExitCodeProcess(HandleOf(m.process), &code);
    m.exitCode = static_cast<int>(code);
    m.ended = true;
    Close(m.process);
    return false;
}

void TestProcess::Signal(int number) {
    if (number != 9) NeedsTheLayer("signals");
    if (!m.ended) TerminateProcess(HandleOf(m.process), kKilled);
}

bool RunsAsRoot() {
    return false; // nobody is
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

void PrepareTestProgram() {}

void UseSetting(const char*, const char*) {
    NeedsTheLayer("the layer's settings");
}

std::string MakePrivateMachine() {
    for (const char* key : {"A", "D", "K", "Order", "Software\\Values"})
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, key);
    ClearSubkeys("SOFTWARE\\Tavik");
    ClearSubkeys("System\\CurrentControlSet\\Control\\Print\\Printers");
    for (const char* service : {"Svc", "Other", "TVORSDB"})
        DeleteTheService(service);
    char folder[MAX_PATH];
    GetTempPathA(sizeof folder, folder);
    const std::string directory = folder + ("oriel-test-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    SetEnvironmentVariableA(kPrivateDirectoryVariable, directory.c_str());
    return directory;
}

// kernel_kit.h over POSIX.
#include "kernel_kit.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

std::filesystem::path ObjectsFolder() {
    return std::filesystem::path(std::getenv("ORIEL_RUNTIME_DIR")) / "objects";
}

DWORD RunProcedure(LPVOID parameter) {
    const std::unique_ptr<std::function<DWORD()>> procedure(static_cast<std::function<DWORD()>*>(parameter));
    return (*procedure)();
}

} // namespace

HANDLE StartThread(std::function<DWORD()> procedure) {
    return CreateThread(nullptr, 65536, RunProcedure, new std::function<DWORD()>(std::move(procedure)), 0, nullptr);
}

bool Join(HANDLE thread, DWORD milliseconds) {
    return WaitForSingleObject(thread, milliseconds) == WAIT_OBJECT_0;
}

std::vector<std::string> ObjectFiles() {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(ObjectsFolder(), none))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string ObjectPath(const std::string& name) {
    return ObjectsFolder() / name;
}

void PlantFile(const std::string& name, const std::string& bytes, unsigned mode) {
    std::filesystem::create_directory(ObjectsFolder());
    const std::string path = ObjectsFolder() / name;
    std::ofstream(path, std::ios::binary) << bytes;
    chmod(path.c_str(), mode);
}

void PlantHardLink(const std::string& name, const std::string& path) {
    std::filesystem::create_hard_link(path, ObjectPath(name));
}

HoldAlive::HoldAlive(const std::string& name) : m_file(open(ObjectPath(name).c_str(), O_RDONLY | O_CLOEXEC)) {
    flock(m_file, name == "." ? LOCK_EX : LOCK_SH);
}

HoldAlive::~HoldAlive() {
    close(m_file);
}

void RemoveObjectFile(const std::string& name) {
    std::filesystem::remove(ObjectsFolder() / name);
}

int RunInForkChild(const std::function<int()>& procedure) {
    const pid_t pid = fork();
    if (pid == 0) _exit(procedure());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

IdleForkChild::IdleForkChild() : m_pid(fork()) {
    if (m_pid == 0)
        for (;;)
            pause();
}

IdleForkChild::~IdleForkChild() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

struct SignalStorm::State {
    std::atomic<bool> over{false};
    std::atomic<unsigned> sent{0};
    std::thread thread;
};

SignalStorm::SignalStorm() : m_state(new State) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    m_state->thread = std::thread([state = m_state, target = pthread_self()] {
        while (!state->over.load()) {
            pthread_kill(target, SIGUSR1);
            state->sent.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
}

SignalStorm::~SignalStorm() {
    m_state->over.store(true);
    m_state->thread.join();
    delete m_state;
}

unsigned SignalStorm::Sent() const {
    return m_state->sent.load();
}

void PauseUs(int microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

bool IsAsleep(DWORD threadId) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%u/stat", threadId);
    char line[256] = "";
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t count = file >= 0 ? read(file, line, sizeof line - 1) : 0;
    if (file >= 0) close(file);
    const char* end = count > 0 ? std::strrchr(line, ')') : nullptr;
    return end != nullptr && end[2] == 'S';
}

void BlockAllSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

unsigned OpenDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<unsigned>(std::distance(begin(entries), end(entries)));
}

unsigned Zombies() {
    unsigned count = 0;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", none)) {
        std::ifstream file(entry.path() / "stat");
        std::string line;
        if (!std::getline(file, line)) continue;
        const size_t end = line.rfind(')');
        if (end == std::string::npos || end + 4 > line.size()) continue;
        if (line[end + 2] == 'Z' && std::stoi(line.substr(end + 4)) == getpid()) ++count;
    }
    return count;
}

void WriteReport(const std::string& path, const std::string& text) {
    std::ofstream(path + ".new", std::ios::binary) << text;
    std::filesystem::rename(path + ".new", path);
}

void MakeExecutable(const std::string& path) {
    chmod(path.c_str(), 0755);
}

void LeakADescriptor() {
    [[maybe_unused]] const int leaked = dup(0);
}

void CrashHere() {
    signal(SIGSEGV, SIG_DFL); // a sanitizer's handler would exit
    raise(SIGSEGV);
    std::abort();
}

void RaiseTermination() {
    kill(getpid(), SIGTERM);
}

std::string SignalState() {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (int number = 1; number < 32; ++number) {
        if (sigismember(&blocked, number) == 1) return "signal " + std::to_string(number) + " blocked";
        struct sigaction action {};
        // The test program itself ignores SIGPIPE.
        if (number != SIGPIPE && sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
            return "signal " + std::to_string(number) + " ignored";
    }
    return "no signal blocked or ignored";
}

bool IsSessionLeader() {
    return getsid(0) == getpid();
}

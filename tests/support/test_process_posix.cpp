// TestProcess and the private machine over POSIX.
#include "not_here.h"
#include "private_machine.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace {

void CloseDescriptor(int& descriptor) {
    if (descriptor >= 0) close(descriptor);
    descriptor = -1;
}

} // namespace

void TestProcess::Start(const std::string& path, const std::vector<std::string>& arguments,
                        const Environment& environment) {
    int in[2];
    int out[2];
    int err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return;
    }
    std::vector<char*> argv{const_cast<char*>(path.c_str())};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string name(*entry, std::strcspn(*entry, "="));
        if (!environment.contains(name)) variables.emplace_back(*entry);
    }
    for (const auto& [name, value] : environment)
        variables.push_back(name + "=" + value);
    std::vector<char*> envp;
    for (std::string& variable : variables)
        envp.push_back(variable.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    m_in = in[1];
    m_out = out[0];
    m_err = err[0];
    fcntl(m_err, F_SETFL, O_NONBLOCK);
    if (error != 0) {
        ADD_FAILURE() << path << ": " << std::strerror(error);
        m_ended = true;
        return;
    }
    m_pid = pid;
}

TestProcess::~TestProcess() {
    if (m_pid > 0 && !m_ended) Kill();
    if (testing::Test::HasFailure() && m_err >= 0) {
        const std::string errors = Errors();
        if (!errors.empty()) std::fprintf(stderr, "--- standard error of process %d:\n%s", m_pid, errors.c_str());
    }
    CloseDescriptor(m_in);
    CloseDescriptor(m_out);
    CloseDescriptor(m_err);
}

unsigned TestProcess::Id() const {
    return static_cast<unsigned>(m_pid);
}

size_t TestProcess::ResidentBytes() const {
    FILE* file = std::fopen(("/proc/" + std::to_string(Id()) + "/status").c_str(), "r");
    char line[256];
    size_t kibibytes = 0;
    while (file && std::fgets(line, sizeof line, file))
        std::sscanf(line, "VmRSS: %zu", &kibibytes);
    if (file) std::fclose(file);
    EXPECT_GT(kibibytes, 0u) << "process " << Id();
    return kibibytes * 1024;
}

bool TestProcess::Running() {
    if (m_ended || m_pid <= 0) return false;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) Ended(status);
    return !m_ended;
}

void TestProcess::Ended(int status) {
    m_ended = true;
    m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string TestProcess::Hear(int timeoutMs) {
    const double deadline = NowMs() + timeoutMs;
    for (;;) {
        const size_t end = m_buffer.find('\n');
        if (end != std::string::npos) {
            const std::string line = m_buffer.substr(0, end);
            m_buffer.erase(0, end + 1);
            return line;
        }
        pollfd ready{m_out, POLLIN, 0};
        const double left = deadline - NowMs();
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left) + 1) <= 0) {
            if (NowMs() < deadline) continue;
            ADD_FAILURE() << "process " << m_pid << " said nothing within " << timeoutMs << " ms";
            return {};
        }
        char bytes[4096];
        const ssize_t count = read(m_out, bytes, sizeof bytes);
        if (count <= 0) {
            ADD_FAILURE() << "process " << m_pid << " closed its output after: " << m_buffer << "\n" << Errors();
            return {};
        }
        m_buffer.append(bytes, static_cast<size_t>(count));
    }
}

void TestProcess::Tell(const std::string& line) {
    const std::string text = line + "\n";
    if (write(m_in, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        ADD_FAILURE() << "process " << m_pid << " takes no input";
}

void TestProcess::CloseInput() {
    CloseDescriptor(m_in);
}

std::string TestProcess::HearAll(int timeoutMs) {
    const double deadline = NowMs() + timeoutMs;
    for (;;) {
        pollfd ready[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
        const double left = deadline - NowMs();
        if (left <= 0) {
            ADD_FAILURE() << "process " << m_pid << " still runs after " << timeoutMs << " ms";
            break;
        }
        if (poll(ready, 2, static_cast<int>(left) + 1) < 0 && errno != EINTR) break;
        if (ready[1].revents != 0) Errors();
        if (ready[0].revents == 0) continue;
        char bytes[4096];
        const ssize_t count = read(m_out, bytes, sizeof bytes);
        if (count <= 0) break;
        m_buffer.append(bytes, static_cast<size_t>(count));
    }
    return std::exchange(m_buffer, {});
}

std::string TestProcess::Errors() {
    char bytes[4096];
    ssize_t count = 0;
    while ((count = read(m_err, bytes, sizeof bytes)) > 0)
        m_errors.append(bytes, static_cast<size_t>(count));
    return m_errors;
}

void TestProcess::Kill() {
    KillOnly();
    Wait();
}

void TestProcess::KillOnly() {
    if (!m_ended) kill(m_pid, SIGKILL);
}

void TestProcess::Terminate() {
    kill(m_pid, SIGTERM);
}

void TestProcess::Interrupt() {
    kill(m_pid, SIGINT);
}

void TestProcess::Stop() {
    kill(m_pid, SIGSTOP);
    int status = 0;
    if (waitpid(m_pid, &status, WUNTRACED) == m_pid && !WIFSTOPPED(status)) Ended(status); // it was faster
}

void TestProcess::Continue() {
    if (!m_ended) kill(m_pid, SIGCONT);
}

int TestProcess::Wait(int timeoutMs) {
    if (!WaitUntil([this] { return !Running(); }, timeoutMs)) {
        ADD_FAILURE() << "process " << m_pid << " still runs after " << timeoutMs << " ms";
        return -1;
    }
    return m_exitCode;
}

bool OnTheLayer() {
    return true;
}

void NeedsTheLayer(const char*) {}

bool RunsAsRoot() {
    return geteuid() == 0;
}

double NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

void PauseMs(int milliseconds) {
    const timespec pause{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    nanosleep(&pause, nullptr);
}

std::string OwnProgram() {
    return std::filesystem::read_symlink("/proc/self/exe");
}

void PrepareTestProgram() {
    signal(SIGPIPE, SIG_IGN);
}

void UseSetting(const char* name, const char* value) {
    if (value != nullptr)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

std::string MakePrivateMachine() {
    // Shared memory, so that a test costs no disk.
    const char* parent = std::getenv(kMachinesVariable);
    std::string directory = (parent != nullptr ? parent : "/dev/shm") + std::string("/oriel-test-XXXXXX");
    if (mkdtemp(directory.data()) == nullptr) {
        std::perror(directory.c_str());
        std::exit(2);
    }
    std::filesystem::create_directory(directory + "/state");
    std::filesystem::create_directory(directory + "/run");
    std::filesystem::permissions(directory, std::filesystem::perms(0755));
    setenv(kPrivateDirectoryVariable, directory.c_str(), 1);
    setenv("ORIEL_STATE_DIR", (directory + "/state").c_str(), 1);
    setenv("ORIEL_RUNTIME_DIR", (directory + "/run").c_str(), 1);
    // No desktop, whoever runs the tests.
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    setenv("CUPS_SERVER", (directory + "/no-print-server").c_str(), 1);
    return directory;
}

std::string ProgramPath(const std::string& name) {
    return std::string(ORIEL_BIN_DIR "/") + name;
}

std::string LibraryPath(const std::string& name) {
    return std::string(ORIEL_LIB_DIR "/") + name;
}

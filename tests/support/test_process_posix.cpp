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
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

void TestProcess::Start(const std::string& path, const std::vector<std::string>& arguments,
                        const Environment& environment) {
    std::vector<std::string> words{path};
    if (!environment.empty()) words[0] = "/usr/bin/env";
    for (const auto& [name, value] : environment)
        words.push_back(name + "=" + value);
    if (!environment.empty()) words.push_back(path);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    int pipes[3][2];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int stream = 0; stream < 3; ++stream) {
        EXPECT_EQ(pipe2(pipes[stream], O_CLOEXEC), 0) << std::strerror(errno);
        posix_spawn_file_actions_adddup2(&actions, pipes[stream][stream != 0], stream);
    }
    const int error = posix_spawn(&m.process, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    m.in = pipes[0][1];
    m.out = pipes[1][0];
    m.err = pipes[2][0];
    for (int stream = 0; stream < 3; ++stream)
        close(pipes[stream][stream != 0]);
    EXPECT_EQ(error, 0) << path << ": " << std::strerror(error);
    m.ended = error != 0;
    m.id = static_cast<unsigned>(m.process);
}

bool TestProcess::Give(int stream, const std::string& text) {
    return write(stream, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool TestProcess::Take(int stream, std::string& text, int waitMs) {
    pollfd ready{stream, POLLIN, 0};
    if (poll(&ready, 1, waitMs) <= 0) return true;
    char bytes[4096];
    const ssize_t count = read(stream, bytes, sizeof bytes);
    if (count > 0) text.append(bytes, static_cast<size_t>(count));
    return count > 0;
}

void TestProcess::Close(int& stream) {
    if (stream >= 0) close(stream);
    stream = -1;
}

bool TestProcess::Running() {
    int status = 0;
    if (m.ended || waitpid(m.process, &status, WNOHANG) != m.process) return !m.ended;
    m.ended = true;
    m.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
}

void TestProcess::Signal(int number) {
    if (m.ended) return;
    kill(m.process, number);
    siginfo_t information; // it may have ended before it was stopped
    if (number == SIGSTOP) waitid(P_PID, m.id, &information, WSTOPPED | WEXITED | WNOWAIT);
}

bool OnTheLayer() {
    return true;
}

void NeedsTheLayer(const char*) {}

bool RunsAsRoot() {
    return geteuid() == 0;
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

#include "posix_kit.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <iterator>
#include <pthread.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

bool BecomeNobody() {
    constexpr uid_t kNobody = 65534;
    return setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0;
}

void SetUmask(unsigned mask) {
    umask(static_cast<mode_t>(mask));
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void ReplaceFile(const std::string& path, const std::string& bytes, unsigned mode) {
    const std::string fresh = path + ".new";
    std::ofstream(fresh, std::ios::binary) << bytes;
    fs::permissions(fresh, fs::perms(mode));
    fs::remove_all(path);
    fs::rename(fresh, path);
}

bool PlantInPlace(const std::string& path, Plant plant, const std::string& target) {
    fs::remove_all(path);
    switch (plant) {
    case Plant::kLink:
        return symlink(target.c_str(), path.c_str()) == 0;
    case Plant::kHardLink:
        return link(target.c_str(), path.c_str()) == 0;
    case Plant::kPipe:
        return mkfifo(path.c_str(), 0666) == 0;
    case Plant::kDirectory:
        return mkdir(path.c_str(), 0777) == 0;
    }
    return false;
}

bool LockWholeFile(const std::string& path, bool asReader) {
    const int file = open(path.c_str(), (asReader ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = asReader ? F_RDLCK : F_WRLCK;
    return file >= 0 && fcntl(file, F_SETLK, &lock) == 0;
}

std::string ObjectPath(const std::string& name) {
    return std::string(std::getenv("ORIEL_RUNTIME_DIR")) + "/objects/" + name;
}

std::vector<std::string> ObjectFiles() {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(ObjectPath(""), none))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

void HoldObject(const std::string& name) {
    flock(open(ObjectPath(name).c_str(), O_RDONLY | O_CLOEXEC), name == "." ? LOCK_EX : LOCK_SH);
}

void StartIdleForkChild() {
    if (fork() != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;)
        pause();
}

void StartSignalStorm() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    std::thread([target = pthread_self()] {
        for (;;) {
            pthread_kill(target, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }).detach();
}

bool IsAsleep(unsigned threadId) {
    const std::string line = ReadWholeFile("/proc/self/task/" + std::to_string(threadId) + "/stat");
    return line.find(") S") != std::string::npos;
}

void BlockAllSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

void CrashHere() {
    signal(SIGSEGV, SIG_DFL); // a sanitizer's handler would exit
    raise(SIGSEGV);
    std::abort();
}

void RaiseTermination() {
    kill(getpid(), SIGTERM);
}

void LeakADescriptor() {
    [[maybe_unused]] const int leaked = dup(0);
}

std::string ProcessState() {
    std::string state = "descriptors: " + std::to_string(OpenDescriptors());
    if (getsid(0) == getpid()) state += ", own session";
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (int number = 1; number < 32; ++number) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        if (sigismember(&blocked, number) == 1) state += ", blocked: " + std::to_string(number);
        // The test program itself ignores SIGPIPE.
        if (number != SIGPIPE && action.sa_handler == SIG_IGN) state += ", ignored: " + std::to_string(number);
    }
    return state;
}

unsigned OpenDescriptors() {
    return static_cast<unsigned>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

unsigned Zombies() {
    unsigned count = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        if (!std::isdigit(entry.path().filename().string()[0])) continue;
        const std::string line = ReadWholeFile(entry.path() / "stat");
        const size_t end = line.rfind(") Z ");
        if (end != std::string::npos && std::stoi(line.substr(end + 4)) == getpid()) ++count;
    }
    return count;
}

#include "kit.h"
#include "objects/protocol.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <winreg_text.h>

namespace fs = std::filesystem;

bool BecomeNobody() {
    constexpr uid_t kNobody = 65534;
    return setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0;
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
    return (plant == Plant::kLink       ? symlink(target.c_str(), path.c_str())
            : plant == Plant::kHardLink ? link(target.c_str(), path.c_str())
            : plant == Plant::kPipe     ? mkfifo(path.c_str(), 0666)
                                        : mkdir(path.c_str(), 0777)) == 0;
}

bool LockWholeFile(const std::string& path, bool asReader) {
    const int file = open(path.c_str(), (asReader ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = asReader ? F_RDLCK : F_WRLCK;
    return file >= 0 && fcntl(file, F_SETLK, &lock) == 0 && flock(file, LOCK_EX) == 0;
}

CHILD_PROCESS(HoldsAFile) {
    return LockWholeFile(child.arguments[0]) ? StayReady(child) : 1;
}

int ConnectToObjectServer() {
    const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const std::string path = std::string(std::getenv("ORIEL_RUNTIME_DIR")) + "/" + oriel::kObjectsSocket;
    sockaddr_un address{.sun_family = AF_UNIX};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return connection;
    close(connection);
    return -1;
}

unsigned ObjectCount() {
    const int connection = ConnectToObjectServer();
    if (connection < 0) return 0;
    const oriel::ObjectRequest request{.number = 1, .action = oriel::ObjectAction::Count};
    oriel::ObjectReply reply{};
    send(connection, &request, sizeof request, 0);
    EXPECT_EQ(recv(connection, &reply, sizeof reply, 0), ssize_t{sizeof reply});
    EXPECT_EQ(reply.error, DWORD{ERROR_SUCCESS});
    close(connection);
    // The kind is the number of holds: one at least for each object.
    EXPECT_GE(static_cast<unsigned>(reply.kind), reply.size);
    return reply.size;
}

// Empty when the process is gone.
static std::string OfProcess(const std::string& path) {
    try {
        return ReadWholeFile(path);
    } catch (const std::exception&) {
        return "";
    }
}

std::map<int, int> ObjectServerProcesses() {
    std::map<int, int> parents;
    const std::string argument = std::string("oriel-objects\0", 14) + std::getenv("ORIEL_RUNTIME_DIR") + '\0';
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const int process = std::atoi(entry.path().filename().c_str());
        if (process == 0 || OfProcess(entry.path() / "cmdline").find(argument) == std::string::npos) continue;
        const std::string status = OfProcess(entry.path() / "stat");
        const size_t name = status.rfind(") ");
        if (name != std::string::npos && status[name + 2] != 'Z') parents[process] = std::atoi(&status[name + 4]);
    }
    return parents;
}

void SignalObjectServer(int signal) {
    for (const auto& [process, parent] : ObjectServerProcesses())
        kill(process, signal);
}

bool IsAsleep(unsigned threadId) {
    return ReadWholeFile("/proc/self/task/" + std::to_string(threadId) + "/stat").find(") S") != std::string::npos;
}

void BlockAllSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

unsigned OpenDescriptors() {
    return static_cast<unsigned>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

LSTATUS Import(const std::string& text, DWORD* line) {
    return RegImportTextA(text.data(), text.size(), line);
}

std::string Export(HKEY key, const char* path) {
    SIZE_T length = 0;
    LSTATUS status = RegExportTextA(key, path, nullptr, &length);
    std::string text(length, '\0');
    if (status == ERROR_SUCCESS) status = RegExportTextA(key, path, text.data(), &length);
    return status == ERROR_SUCCESS ? text : std::to_string(status);
}

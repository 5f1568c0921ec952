#include "store_kit.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

bool IsRoot() {
    return geteuid() == 0;
}

bool BecomeNobody() {
    constexpr uid_t kNobody = 65534;
    return setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0;
}

bool LockWholeFile(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    return file >= 0 && fcntl(file, F_SETLK, &lock) == 0;
}

bool LockForReading(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    return file >= 0 && fcntl(file, F_SETLK, &lock) == 0;
}

bool PlantInPlace(const std::string& path, Plant plant, const std::string& target) {
    std::filesystem::remove_all(path);
    switch (plant) {
    case Plant::kLink:
        return symlink(target.c_str(), path.c_str()) == 0;
    case Plant::kPipe:
        return mkfifo(path.c_str(), 0666) == 0;
    case Plant::kDirectory:
        return mkdir(path.c_str(), 0777) == 0;
    }
    return false;
}

int InForkChild(int (*procedure)()) {
    const pid_t child = fork();
    if (child == 0) _exit(procedure());
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

unsigned FileMode(const std::string& path) {
    struct stat file {};
    return lstat(path.c_str(), &file) == 0 ? file.st_mode & 07777 : 0;
}

void SetUmask(unsigned mask) {
    umask(static_cast<mode_t>(mask));
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void ReplaceFile(const std::string& path, const std::string& bytes) {
    const std::string fresh = path + ".new";
    std::ofstream(fresh, std::ios::binary) << bytes;
    std::filesystem::permissions(fresh, std::filesystem::perms(0644));
    std::filesystem::remove_all(path);
    std::filesystem::rename(fresh, path);
}

NotifySocket::NotifySocket(const std::string& path)
    : m_path(path), m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

NotifySocket::~NotifySocket() {
    close(m_socket);
}

std::vector<std::string> NotifySocket::Messages() {
    std::vector<std::string> messages;
    char text[256];
    for (ssize_t length = 0; (length = recv(m_socket, text, sizeof text, 0)) >= 0;)
        messages.emplace_back(text, static_cast<size_t>(length));
    return messages;
}

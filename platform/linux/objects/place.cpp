#include "objects/place.h"

#include "base/futex.h"
#include "base/lock.h"
#include "base/socket_address.h"
#include "objects/protocol.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace oriel {
namespace {

constexpr char kLockFile[] = ".objects.lock";
constexpr char kProgram[] = "oriel/oriel-objects"; // beside the layer's library
constexpr int kBacklog = 4096;

Descriptor OpenDirectory(const std::string& directory) {
    return Descriptor(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

Descriptor NewSocket() {
    return Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

void Pause(long ns) {
    const timespec time{0, ns};
    nanosleep(&time, nullptr);
}

const sockaddr* Plain(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// The lock of those who start a server; a file that only this user can open.
DWORD TakeStartLock(int directory, int64_t deadline, Descriptor& lock) {
    lock = Descriptor(
        openat(directory, kLockFile, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR));
    struct stat status {};
    if (!lock.IsOpen() || fstat(lock.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != geteuid())
        return ERROR_PATH_NOT_FOUND;
    while (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) return ERROR_PATH_NOT_FOUND;
        if (MonotonicNs() >= deadline || TerminationAsked()) return ERROR_TIMEOUT;
        Pause(kNsPerMs);
    }
    return ERROR_SUCCESS;
}

// Binds under another name, so that the socket appears with its mode, whatever the umask, and in place of a dead one.
bool Bind(const Descriptor& listener, const std::string& directory, int folder) {
    const std::string fresh = "." + std::string(kObjectsSocket) + "." + std::to_string(getpid());
    unlinkat(folder, fresh.c_str(), 0);
    const sockaddr_un address = SocketAddress(directory, fresh, folder);
    if (bind(listener.Get(), Plain(address), sizeof address) != 0) return false;
    if (fchmodat(folder, fresh.c_str(), 0666, 0) == 0 && listen(listener.Get(), kBacklog) == 0 &&
        renameat(folder, fresh.c_str(), folder, kObjectsSocket) == 0)
        return true;
    unlinkat(folder, fresh.c_str(), 0);
    return false;
}

} // namespace

Descriptor ConnectToObjects(const std::string& directory, DWORD& error) {
    const Descriptor folder = OpenDirectory(directory);
    Descriptor connection = NewSocket();
    error = ERROR_NO_SYSTEM_RESOURCES;
    if (!folder.IsOpen() || !connection.IsOpen()) return {};
    const sockaddr_un address = SocketAddress(directory, kObjectsSocket, folder.Get());
    if (connect(connection.Get(), Plain(address), sizeof address) != 0) {
        error = errno == ENOENT || errno == ECONNREFUSED ? ERROR_FILE_NOT_FOUND
                : errno == EAGAIN || errno == EINTR      ? ERROR_BUSY
                                                         : ERROR_ACCESS_DENIED;
        return {};
    }
    // Who listens is who made the socket.
    ucred server{};
    socklen_t size = sizeof server;
    struct stat status {};
    error = ERROR_ACCESS_DENIED;
    if (getsockopt(connection.Get(), SOL_SOCKET, SO_PEERCRED, &server, &size) != 0 ||
        fstat(folder.Get(), &status) != 0 ||
        (server.uid != 0 && server.uid != geteuid() && server.uid != status.st_uid))
        return {};
    error = ERROR_SUCCESS;
    return connection;
}

DWORD ListenForObjects(const std::string& directory, int64_t deadline, Descriptor& listener) {
    const Descriptor folder = OpenDirectory(directory);
    if (!folder.IsOpen()) return ERROR_PATH_NOT_FOUND;
    Descriptor lock;
    DWORD error = TakeStartLock(folder.Get(), deadline, lock);
    if (error != ERROR_SUCCESS) return error;
    ConnectToObjects(directory, error);
    if (error != ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
    Descriptor fresh = NewSocket();
    if (!fresh.IsOpen()) return ERROR_NO_SYSTEM_RESOURCES;
    if (!Bind(fresh, directory, folder.Get())) return ERROR_PATH_NOT_FOUND;
    listener = std::move(fresh);
    return ERROR_SUCCESS;
}

namespace {

std::string ProgramPath() {
    Dl_info here{};
    if (dladdr(&kProgram, &here) == 0 || here.dli_fname == nullptr) return "";
    std::string path = here.dli_fname;
    path.resize(path.rfind('/') + 1);
    return path + kProgram;
}

// A session of its own, no descriptor but the socket, no signal settings of this process, and of its environment only
// where it finds the libraries.
int Spawn(const std::string& program, const std::string& directory, int listener, pid_t& id) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, listener, kGivenListener);
    for (const int stream : {0, 1, 2})
        posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, kGivenListener + 1);
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
    const char* const words[] = {program.c_str(), directory.c_str(), nullptr};
    const char* found = secure_getenv("LD_LIBRARY_PATH");
    const std::string libraries = found != nullptr ? std::string("LD_LIBRARY_PATH=") + found : "";
    const char* const environment[] = {libraries.empty() ? nullptr : libraries.c_str(), nullptr};
    const int error = posix_spawn(&id, program.c_str(), &actions, &attributes, const_cast<char* const*>(words),
                                  const_cast<char* const*>(environment));
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

} // namespace

DWORD StartObjectServer(const std::string& directory, int64_t deadline) {
    const std::string program = ProgramPath();
    if (access(program.c_str(), X_OK) != 0) return ERROR_PATH_NOT_FOUND;
    Descriptor listener;
    const DWORD error = ListenForObjects(directory, deadline, listener);
    if (error != ERROR_SUCCESS || !listener.IsOpen()) return error;
    pid_t id = 0;
    // Nobody accepts when it cannot be started: connections end with the listener.
    if (Spawn(program, directory, listener.Get(), id) != 0) return ERROR_PATH_NOT_FOUND;
    // The program ends as soon as the server runs in processes of its own. If this program lets the system reap its
    // children, there is nothing to wait for.
    for (pid_t ended = 0; (ended = waitpid(id, nullptr, WNOHANG)) == 0 && MonotonicNs() < deadline;)
        Pause(kNsPerMs / 5);
    return ERROR_SUCCESS;
}

} // namespace oriel

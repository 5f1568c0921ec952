// Sockets of endpoints. No state; the files are in the run directory.
#include "rpc/endpoint.h"

#include "base/descriptor.h"
#include "base/directories.h"
#include "base/lock.h"
#include "base/socket_address.h"
#include "base/timings.h"
#include "security/credentials.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace oriel::rpc {
namespace {

constexpr suseconds_t kLongestReceiveUs = 20'000;

RPC_STATUS FromErrno(int error, RPC_STATUS otherwise) {
    switch (error) {
    case EMFILE:
    case ENFILE:
        return RPC_S_OUT_OF_RESOURCES;
    case ENOMEM:
    case ENOBUFS:
        return RPC_S_OUT_OF_MEMORY;
    case EACCES:
    case EPERM:
        return RPC_S_ACCESS_DENIED;
    default:
        return otherwise;
    }
}

bool IsTrusted(uid_t user) {
    struct stat status {};
    return user == 0 || user == geteuid() || (stat(RuntimeDirectory().c_str(), &status) == 0 && status.st_uid == user);
}

int OpenFolder(const std::string& folder) {
    return open(folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// True when only we can put sockets there: no other user can replace them.
bool IsSafeToServeIn(int folder) {
    struct stat status {};
    if (fstat(folder, &status) != 0 || !IsTrusted(status.st_uid)) return false;
    return (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (status.st_mode & S_ISVTX) != 0;
}

bool SomebodyListens(const sockaddr_un& address) {
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe.IsOpen()) return true;
    return connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
           errno != ECONNREFUSED;
}

RPC_STATUS TakeLock(Endpoint& endpoint) {
    const std::string lockName = "." + endpoint.name + ".lock";
    Descriptor lock(
        openat(endpoint.folder, lockName.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
    struct stat status {};
    if (!lock.IsOpen() || fstat(lock.Get(), &status) != 0)
        return errno == EMFILE || errno == ENFILE ? RPC_S_OUT_OF_RESOURCES : RPC_S_CANT_CREATE_ENDPOINT;
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || status.st_nlink != 1)
        return RPC_S_CANT_CREATE_ENDPOINT;
    if (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) return RPC_S_DUPLICATE_ENDPOINT;
    endpoint.lock = lock.Release();
    return RPC_S_OK;
}

} // namespace

bool IsEndpointName(std::string_view name) {
    return !name.empty() && name.size() <= 64 && name[0] != '.' && std::ranges::all_of(name, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
               c == '.';
    });
}

void SetSendTime(int socket, int milliseconds) {
    const timeval time{milliseconds / 1000, (milliseconds % 1000) * 1000};
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

RPC_STATUS ConnectToEndpoint(const std::string& name, int64_t deadline, int& socket) {
    // The server takes the user who connects for the client, and does not hand one user's objects to another.
    const AsOwnProcess ourselves;
    Descriptor folder;
    Descriptor stream;
    sockaddr_un address;
    {
        TerminationHold hold;
        try {
            const std::string path = RuntimeFolder("rpc");
            if (path.empty()) return RPC_S_SERVER_UNAVAILABLE;
            folder = Descriptor(OpenFolder(path));
            if (!folder.IsOpen()) return FromErrno(errno, RPC_S_SERVER_UNAVAILABLE);
            address = SocketAddress(path, name, folder.Get());
        } catch (const std::bad_alloc&) {
            return RPC_S_OUT_OF_MEMORY;
        }
        stream = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!stream.IsOpen()) return FromErrno(errno, RPC_S_OUT_OF_RESOURCES);
    }
    for (;;) {
        const int left = LeftMs(deadline);
        if (left == 0) return RPC_S_SERVER_UNAVAILABLE;
        SetSendTime(stream.Get(), left);
        if (connect(stream.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) break;
        if (errno != EINTR) return FromErrno(errno, RPC_S_SERVER_UNAVAILABLE);
    }
    ucred server{};
    socklen_t size = sizeof server;
    if (getsockopt(stream.Get(), SOL_SOCKET, SO_PEERCRED, &server, &size) != 0 || !IsTrusted(server.uid))
        return RPC_S_SERVER_UNAVAILABLE;
    // A server that accepts nothing of a request for so long has stopped; it cannot have executed the call.
    SetSendTime(stream.Get(), g_timings.rpcSend);
    // Who waits in recv() for an answer comes to its deadline soon enough.
    const timeval look{0, kLongestReceiveUs};
    setsockopt(stream.Get(), SOL_SOCKET, SO_RCVTIMEO, &look, sizeof look);
    socket = stream.Release();
    return RPC_S_OK;
}

RPC_STATUS ClaimEndpoint(const std::string& name, Endpoint& endpoint) {
    endpoint.name = name;
    endpoint.path = RuntimeFolder("rpc");
    if (endpoint.path.empty()) return RPC_S_CANT_CREATE_ENDPOINT;
    endpoint.folder = OpenFolder(endpoint.path);
    if (endpoint.folder < 0) return FromErrno(errno, RPC_S_CANT_CREATE_ENDPOINT);
    RPC_STATUS status = IsSafeToServeIn(endpoint.folder) ? TakeLock(endpoint) : RPC_S_CANT_CREATE_ENDPOINT;
    if (status == RPC_S_OK) status = BindEndpoint(endpoint);
    if (status == RPC_S_OK) return status;
    if (endpoint.lock >= 0) close(endpoint.lock);
    close(endpoint.folder);
    endpoint = {};
    return status;
}

RPC_STATUS BindEndpoint(Endpoint& endpoint) {
    if (endpoint.listener >= 0) return RPC_S_OK;
    const char* name = endpoint.name.c_str();
    const sockaddr_un address = SocketAddress(endpoint.path, endpoint.name, endpoint.folder);
    struct stat status {};
    if (fstatat(endpoint.folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!S_ISSOCK(status.st_mode)) return RPC_S_CANT_CREATE_ENDPOINT;
        if (SomebodyListens(address)) return RPC_S_DUPLICATE_ENDPOINT;
        if (unlinkat(endpoint.folder, name, 0) != 0) return RPC_S_CANT_CREATE_ENDPOINT;
    }
    Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener.IsOpen()) return FromErrno(errno, RPC_S_OUT_OF_RESOURCES);
    // Set through the umask, so that the socket never has another mode. The umask belongs to the process: a server
    // claims its endpoints at its start, before it has threads that create files.
    const mode_t mask = umask(0111);
    const int result = bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    umask(mask);
    if (result != 0) return RPC_S_CANT_CREATE_ENDPOINT;
    endpoint.listener = listener.Release();
    return RPC_S_OK;
}

void UnbindEndpoint(Endpoint& endpoint) {
    if (endpoint.listener < 0) return;
    unlinkat(endpoint.folder, endpoint.name.c_str(), 0);
    close(endpoint.listener);
    endpoint.listener = -1;
}

} // namespace oriel::rpc

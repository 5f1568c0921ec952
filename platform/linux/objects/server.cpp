// OrielServeObjects: the object server.
//
// It is two processes, which share the table and all descriptors: the worker does everything, the keeper waits for the
// worker's end and starts the next one. The worker becomes the keeper of another worker when the keeper ends. So a kill
// of either loses nothing: connections, objects and their memory belong to both.
//
// A request is looked at, executed (table.h), answered, and only then taken from the connection. The next worker finds
// a request that the last one did not finish: it executes or only answers it, by its number. It begins with that one,
// so nobody else sees an object before its maker has it.
//
// State: the table.
#include "base/call.h"
#include "objects/place.h"
#include "objects/requests.h"
#include "objects/table.h"

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <iterator>
#include <oriel_objects.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace oriel {
namespace {

constexpr int64_t kStartTimeNs = 5000 * kNsPerMs;
constexpr int64_t kIdleTimeNs = 2000 * kNsPerMs; // without a connection, until it ends
constexpr int kIdleLookMs = 250;
constexpr uint32_t kMostDescriptors = 1 << 20;
constexpr uint32_t kMostAttempts = 20; // to execute one request: more than kills explain

// Whether a peer may send descriptors: Linux 6.16, not in every C library's headers yet.
constexpr int kSoPassRights = 83;

// ---- descriptors

// Closes what an ended worker opened and did not enter in the table.
void CloseUnnamed() {
    static std::bitset<kMostDescriptors> named;
    named.reset();
    unsigned end = 0;
    const auto name = [&](int file) {
        named.set(static_cast<size_t>(file));
        end = std::max(end, static_cast<unsigned>(file) + 1);
    };
    for (const int stream : {0, 1, 2})
        name(stream);
    name(g_table->listener);
    name(g_table->directory);
    for (uint32_t i = 1; i <= g_table->connectionPool.used; ++i)
        if (g_table->connections[i].live != 0) name(g_table->connections[i].file);
    for (uint32_t i = 1; i <= g_table->objectPool.used; ++i)
        if (g_table->objects[i].holds != 0) name(g_table->objects[i].file);
    unsigned first = 0;
    for (unsigned file = 0; file < end; ++file) {
        if (!named.test(file)) continue;
        if (file > first) close_range(first, file - 1, 0);
        first = file + 1;
    }
    close_range(end, ~0U, 0);
}

// ---- connections

void Drop(ConnectionRecord& connection) {
    connection.dropped = 1;
    shutdown(connection.file, SHUT_RDWR); // so that it stays ready until it is gone
}

// Gives back what an ended connection held, step by step: others are served in between. What ends with a process of the
// server's user goes faster, since another process of the product may be starting in its place.
void EndConnection(uint32_t number) {
    ConnectionRecord& connection = g_table->connections[number];
    for (int left = IsPrivileged(number) ? 1024 : 32; left > 0 && connection.firstHold != 0; --left) {
        const int unused = RemoveHold(connection.firstHold);
        Commit();
        if (unused >= 0) close(unused);
    }
    if (connection.firstHold != 0) return;
    const int file = connection.file;
    RemoveConnection(number);
    Commit();
    close(file);
}

// One request, or a step of the connection's end. What a client that is gone has asked for is not executed: another
// process may know that it is gone.
void Serve(uint32_t number, bool isGone) {
    ConnectionRecord& connection = g_table->connections[number];
    if (connection.live == 0) return;
    if (isGone || connection.dropped != 0) {
        Drop(connection);
        EndConnection(number);
        return;
    }
    char record[sizeof(ObjectRequest)];
    const ssize_t length = recv(connection.file, record, sizeof record, MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (length <= 0) {
        Drop(connection);
        EndConnection(number);
        return;
    }
    g_table->current = number;
    const bool good =
        ++g_table->begun <= kMostAttempts && ExecuteAndAnswer(number, record, static_cast<size_t>(length));
    recv(connection.file, record, sizeof record, MSG_DONTWAIT);
    g_table->current = 0;
    g_table->begun = 0;
    if (!good) {
        Drop(connection);
        EndConnection(number);
    }
}

// What the worker waits for. The connections of the server's user and of root are in the first, those of others in the
// second, which is in the first too: however many requests others make, a few of them are executed between two looks at
// the first. Connections are edge-triggered, which makes their order that of the arrivals: what a process leaves at its
// end, another one that knows of the end does not find any more. A client has one request on its way, so nothing is
// left behind.
struct Waits {
    Descriptor first{epoll_create1(EPOLL_CLOEXEC)};
    Descriptor others{epoll_create1(EPOLL_CLOEXEC)};
};

void Add(const Descriptor& epoll, int file, uint64_t key, uint32_t events = EPOLLIN, int operation = EPOLL_CTL_ADD) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    epoll_ctl(epoll.Get(), operation, file, &event);
}

constexpr uint64_t kListenerKey = 0; // the key of a connection is its number
constexpr uint64_t kKeeperKey = ~uint64_t{0};
constexpr uint64_t kOthersKey = kKeeperKey - 1;

void WaitFor(const Waits& waits, uint32_t number) {
    const Descriptor& epoll = IsPrivileged(number) ? waits.first : waits.others;
    Add(epoll, g_table->connections[number].file, number, EPOLLIN | EPOLLET);
}

void AcceptSome(const Waits& waits) {
    constexpr int kAtOnce = 8;
    for (int i = 0; i < kAtOnce; ++i) {
        Descriptor file(accept4(g_table->listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!file.IsOpen()) {
            // Without descriptors or memory the client stays in the queue: look again soon, not at once.
            if (errno != EAGAIN && errno != ECONNABORTED) usleep(1000);
            return;
        }
        ucred peer{};
        socklen_t size = sizeof peer;
        if (getsockopt(file.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) continue;
        // A client has one reply to take, and no descriptors to send: their close could take time.
        const int least = 1;
        const int no = 0;
        setsockopt(file.Get(), SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
        setsockopt(file.Get(), SOL_SOCKET, kSoPassRights, &no, sizeof no);
        const uint32_t number = AddConnection(peer.uid, file.Get());
        if (number == 0) {
            Undo();
            continue;
        }
        Commit();
        file.Release();
        WaitFor(waits, number);
    }
}

// ---- the two processes

enum class End { KeeperGone, Done };

// Whether new clients still find this server.
bool IsReachable() {
    struct stat named {};
    struct stat own {};
    return fstatat(g_table->directory, kObjectsSocket, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(g_table->directory, &own) == 0 && own.st_nlink != 0 && named.st_ino == g_table->socketNumber;
}

// Without connections: whether it is time to end. Whoever connects now and is not accepted starts another server.
bool MayEnd(int64_t idleSince, bool stays) {
    if (!IsReachable()) return true;
    if (stays || MonotonicNs() - idleSince < kIdleTimeNs) return false;
    unlinkat(g_table->directory, kObjectsSocket, 0);
    return true;
}

void ServeConnection(const Descriptor& epoll, const epoll_event& event) {
    const auto number = static_cast<uint32_t>(event.data.u64);
    Serve(number, (event.events & EPOLLHUP) != 0);
    const ConnectionRecord& connection = g_table->connections[number];
    if (connection.live != 0 && connection.dropped != 0) // more to give back, after the others' turn
        Add(epoll, connection.file, number, EPOLLIN | EPOLLET, EPOLL_CTL_MOD);
}

// Serves what is ready, at most `most` of it. True when the keeper has ended.
bool ServeReady(const Waits& waits, const Descriptor& epoll, int most, int timeoutMs) {
    epoll_event events[64];
    const int count = epoll_wait(epoll.Get(), events, most, timeoutMs);
    // The few of others before those of the server's user, who may know that another user's process has ended.
    for (int i = 0; i < count; ++i)
        if (events[i].data.u64 == kOthersKey) ServeReady(waits, waits.others, 8, 0);
    for (int i = 0; i < count; ++i) {
        const uint64_t key = events[i].data.u64;
        if (key == kKeeperKey) return true;
        if (key == kListenerKey)
            AcceptSome(waits);
        else if (key != kOthersKey)
            ServeConnection(epoll, events[i]);
    }
    return false;
}

End Work(pid_t keeper, bool stays) {
    Undo();
    CloseUnnamed();
    const Waits waits;
    const Descriptor keeperEnd(static_cast<int>(syscall(SYS_pidfd_open, keeper, 0)));
    if (getppid() != keeper) return End::KeeperGone;
    if (!waits.first.IsOpen() || !waits.others.IsOpen()) { // no memory: the keeper tries again
        usleep(10000);
        _exit(1);
    }
    // Before it is waited for: its client may have sent the next request too.
    if (g_table->current != 0) Serve(g_table->current, false);
    Add(waits.first, g_table->listener, kListenerKey);
    Add(waits.first, waits.others.Get(), kOthersKey);
    if (keeperEnd.IsOpen()) Add(waits.first, keeperEnd.Get(), kKeeperKey);
    for (uint32_t i = 1; i <= g_table->connectionPool.used; ++i)
        if (g_table->connections[i].live != 0) WaitFor(waits, i);
    for (int64_t idleSince = MonotonicNs();;) {
        const bool idle = g_table->connectionPool.live == 0;
        if (!idle) idleSince = MonotonicNs();
        if (idle && MayEnd(idleSince, stays)) return End::Done;
        if (ServeReady(waits, waits.first, 64, idle ? kIdleLookMs : -1)) return End::KeeperGone;
    }
}

// A child that shares the table of descriptors.
pid_t CloneSharing() {
    return static_cast<pid_t>(syscall(SYS_clone, CLONE_FILES | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

[[noreturn]] void Keep(bool stays) {
    for (;;) {
        const pid_t keeper = getpid();
        const pid_t worker = CloneSharing();
        if (worker == 0) {
            if (Work(keeper, stays) == End::Done) _exit(0);
            continue; // the keeper's work from now on
        }
        int status = 0;
        if (worker < 0) usleep(10000); // as many processes as there may be
        // Unbounded: the worker ends when the server ends.
        while (worker > 0 && waitpid(worker, &status, 0) < 0 && errno == EINTR) {
        }
        if (worker > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) _exit(0);
    }
}

uint32_t RaiseDescriptorLimit() {
    rlimit limit{kMostDescriptors, kMostDescriptors};
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0) return kMostDescriptors; // root
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, kMostDescriptors);
    setrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<uint32_t>(limit.rlim_cur);
}

bool IsListener(int file) {
    int listens = 0;
    socklen_t size = sizeof listens;
    return getsockopt(file, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens != 0;
}

DWORD TakeListener(const char* directory, Descriptor& listener) {
    if (IsListener(kGivenListener)) {
        listener = Descriptor(kGivenListener);
        return ERROR_SUCCESS;
    }
    const DWORD error = ListenForObjects(directory, MonotonicNs() + kStartTimeNs, listener);
    return error == ERROR_SUCCESS && !listener.IsOpen() ? DWORD{ERROR_SERVICE_ALREADY_RUNNING} : error;
}

void LeaveTerminal() {
    setsid();
    for (const int ignored : {SIGHUP, SIGINT, SIGPIPE})
        signal(ignored, SIG_IGN);
    const Descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int stream : {0, 1, 2})
        dup2(null.Get(), stream);
    if (chdir("/") != 0) return; // it only keeps a file system from being unmounted
}

DWORD ServeObjects(const char* runDirectory, bool stays) {
    Descriptor listener;
    const DWORD error = TakeListener(runDirectory, listener);
    if (error != ERROR_SUCCESS) return error;
    Descriptor directory(open(runDirectory, O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!directory.IsOpen() || fstatat(directory.Get(), kObjectsSocket, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return ERROR_PATH_NOT_FOUND;
    if (!MakeTable(geteuid(), RaiseDescriptorLimit())) return ERROR_NOT_ENOUGH_MEMORY;
    g_table->listener = listener.Get();
    g_table->directory = directory.Get();
    g_table->socketNumber = status.st_ino;
    const pid_t keeper = fork();
    if (keeper < 0) return ERROR_NO_SYSTEM_RESOURCES;
    if (keeper > 0) return ERROR_SUCCESS;
    LeaveTerminal();
    Keep(stays);
}

} // namespace
} // namespace oriel

using namespace oriel;

DWORD WINAPI OrielServeObjects(LPCSTR runDirectory, BOOL stays, const ORIEL_RESERVED_NAME* rules, DWORD count) {
    SetRules({rules, count});
    return CodeCall([&] { return ServeObjects(runDirectory, stays != FALSE); });
}

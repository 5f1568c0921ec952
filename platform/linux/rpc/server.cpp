// Endpoints and listening. State, under g_lock: the endpoints, the connections in service, and whether the server
// listens, stops, or neither. One thread per endpoint accepts; each connection has its own thread.
#include "rpc/server.h"

#include "base/lock.h"
#include "base/steps.h"
#include "base/timings.h"
#include "kernel/thread.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <list>
#include <malloc.h>
#include <new>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace oriel::rpc {
namespace {

enum class State {
    Idle,
    Listening,
    Stopping,   // asked to stop, or stopped, and not yet waited for
    Abandoning, // could not start on all endpoints
};

// For the work of a dispatch function; untouched pages cost nothing.
constexpr size_t kCallStackSize = 256 * 1024;

constinit Lock g_lock;
State g_state ORIEL_LOCK_CHECK(guarded_by(g_lock)) = State::Idle;
std::list<Endpoint>* g_endpoints ORIEL_LOCK_CHECK(guarded_by(g_lock)) = nullptr; // never freed: threads outlive main()
List<ServerConnection> g_connections ORIEL_LOCK_CHECK(guarded_by(g_lock));
unsigned g_threads ORIEL_LOCK_CHECK(guarded_by(g_lock)) = 0; // accepting or serving
bool g_waiting ORIEL_LOCK_CHECK(guarded_by(g_lock)) = false;
Word g_stops{0};

void EndThread() {
    LockHold hold(g_lock);
    if (--g_threads != 0) return;
    if (g_state == State::Abandoning) g_state = State::Idle;
    g_stops.fetch_add(1);
    WakeAll(g_stops, false);
}

void* ConnectionThread(void* argument) {
    auto* connection = static_cast<ServerConnection*>(argument);
    ServeConnection(*connection);
    delete connection;
    EndThread();
    return nullptr;
}

// False: the caller still has to refuse the socket.
bool StartConnection(const Endpoint& endpoint, int socket) {
    ucred client{};
    socklen_t size = sizeof client;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &client, &size) != 0) return false;
    const timeval timeout{g_timings.rpcSend / 1000, 0};
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout,
               sizeof timeout); // against a client that does not read its reply

    User* user = AdmitUser(client.uid);
    if (user == nullptr) return false;
    auto* connection = new (std::nothrow) ServerConnection;
    if (connection == nullptr) {
        DismissUser(user);
        return false;
    }
    connection->channel.socket = socket;
    connection->channel.userBytes = &user->bytes;
    connection->channel.userLimit = kMaxUserBytes;
    connection->endpoint = &endpoint;
    connection->client = client;
    connection->user = user;
    snprintf(connection->identity, sizeof connection->identity, "uid:%u", client.uid);
    bool listening = false;
    {
        LockHold hold(g_lock);
        listening = g_state == State::Listening;
        if (listening) {
            g_connections.Add(*connection);
            ++g_threads;
        }
    }
    if (listening && StartThread(kCallStackSize, ConnectionThread, connection) == 0) return true;
    if (listening) {
        ForgetConnection(*connection);
        EndThread();
    }
    DismissUser(user);
    delete connection;
    return false;
}

bool IsListening() {
    LockHold hold(g_lock);
    return g_state == State::Listening;
}

void AcceptConnections(const Endpoint& endpoint) {
    constexpr timespec kPause{0, 10000000}; // the system is out of resources: retry later
    // Released when the process is out of descriptors, so that a client that cannot be served gets an answer.
    int spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    while (IsListening()) {
        pollfd waiting{endpoint.listener, POLLIN, 0};
        poll(&waiting, 1, -1); // for clients, or for the stop, which shuts the socket down
        int socket = accept4(endpoint.listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int error = socket < 0 ? errno : 0;
        if (error == 0) {
            if (!StartConnection(endpoint, socket)) RefuseConnection(socket);
        } else if ((error == EMFILE || error == ENFILE) && spare >= 0) {
            close(spare);
            socket = accept4(endpoint.listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (socket >= 0) RefuseConnection(socket);
            spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
        } else if (error != EAGAIN && error != EINTR && error != ECONNABORTED) {
            nanosleep(&kPause, nullptr);
        }
    }
    if (spare >= 0) close(spare);
}

void* AcceptThread(void* argument) {
    auto& endpoint = *static_cast<Endpoint*>(argument);
    AcceptConnections(endpoint);
    {
        LockHold hold(g_lock);
        UnbindEndpoint(endpoint);
    }
    EndThread();
    return nullptr;
}

// From this size on a block is a mapping of its own, so that a client's large messages leave no memory behind. The
// allocator would raise the limit with each large block that is freed.
constexpr int kOwnMapping = 128 * 1024;

// A client needs a descriptor, and on some file systems so does each of its events. The usual limit is meant for
// programs that use select.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void StopListening(State state) ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    g_state = state;
    for (const Endpoint& endpoint : *g_endpoints)
        if (endpoint.listener >= 0) shutdown(endpoint.listener, SHUT_RDWR);
    // A call in progress still sends its reply; the next receive sees the end.
    for (const ServerConnection& connection : g_connections)
        shutdown(connection.channel.socket, SHUT_RD);
}

} // namespace

bool IsInUse(const OfferedInterface* offered) {
    LockHold hold(g_lock);
    return g_connections.Find([=](const ServerConnection& one) { return one.calling.load() == offered; }) != nullptr;
}

void ForgetConnection(ServerConnection& connection) {
    LockHold hold(g_lock);
    g_connections.Remove(connection);
}

namespace {

// The child serves nobody, and clients of the parent must not wait for it when the parent ends.
void LeaveServerToParent() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    for (const ServerConnection& connection : g_connections)
        close(connection.channel.socket);
    g_connections.Forget();
    if (g_endpoints != nullptr) {
        for (Endpoint& endpoint : *g_endpoints) {
            for (const int descriptor : {endpoint.listener, endpoint.lock, endpoint.folder})
                if (descriptor >= 0) close(descriptor);
        }
    }
    g_endpoints = nullptr;
    g_threads = 0;
    g_waiting = false;
    g_state = State::Idle;
    g_lock.ForgetOwner();
}

} // namespace
} // namespace oriel::rpc

namespace oriel {
const ForkSteps kRpcServerFork{TakeForFork<rpc::g_lock>, ReleaseAfterFork<rpc::g_lock>, rpc::LeaveServerToParent};
} // namespace oriel

using namespace oriel;
using namespace oriel::rpc;

RPC_STATUS RPC_ENTRY RpcServerUseProtseqEpA(RPC_CSTR Protseq, unsigned int, RPC_CSTR EndpointName,
                                            void* SecurityDescriptor) {
    const char* protocol = reinterpret_cast<const char*>(Protseq);
    const char* name = reinterpret_cast<const char*>(EndpointName);
    if (protocol == nullptr || strcmp(protocol, "ncalrpc") != 0) return RPC_S_PROTSEQ_NOT_SUPPORTED;
    if (name == nullptr || !IsEndpointName(name)) return RPC_S_INVALID_ENDPOINT_FORMAT;
    if (SecurityDescriptor != nullptr) return RPC_S_CANNOT_SUPPORT;
    WatchForFork();
    LockHold hold(g_lock);
    try {
        if (g_endpoints == nullptr) g_endpoints = new std::list<Endpoint>;
        for (const Endpoint& endpoint : *g_endpoints)
            if (endpoint.name == name) return RPC_S_DUPLICATE_ENDPOINT;
        Endpoint endpoint;
        const RPC_STATUS status = ClaimEndpoint(name, endpoint);
        if (status == RPC_S_OK) g_endpoints->push_back(endpoint);
        return status;
    } catch (const std::bad_alloc&) {
        return RPC_S_OUT_OF_MEMORY;
    }
}

RPC_STATUS RPC_ENTRY RpcServerListen(unsigned int, unsigned int, unsigned int DontWait) {
    {
        LockHold hold(g_lock);
        if (g_state != State::Idle) return RPC_S_ALREADY_LISTENING;
        if (g_endpoints == nullptr || g_endpoints->empty()) return RPC_S_NO_PROTSEQS_REGISTERED;
        RaiseDescriptorLimit();
        mallopt(M_MMAP_THRESHOLD, kOwnMapping);
        RPC_STATUS status = RPC_S_OK;
        for (Endpoint& endpoint : *g_endpoints) {
            status = BindEndpoint(endpoint);
            if (status == RPC_S_OK && listen(endpoint.listener, kBacklog) != 0) status = RPC_S_OUT_OF_RESOURCES;
            if (status == RPC_S_OK && StartThread(kCallStackSize, AcceptThread, &endpoint) != 0)
                status = RPC_S_OUT_OF_THREADS;
            if (status != RPC_S_OK) break;
            g_state = State::Listening;
            ++g_threads;
        }
        if (status != RPC_S_OK) {
            if (g_state == State::Listening) StopListening(State::Abandoning);
            return status;
        }
    }
    return DontWait != 0 ? RPC_S_OK : RpcMgmtWaitServerListen();
}

RPC_STATUS RPC_ENTRY RpcMgmtStopServerListening(RPC_BINDING_HANDLE Binding) {
    if (Binding != nullptr) return RPC_S_WRONG_KIND_OF_BINDING;
    LockHold hold(g_lock);
    if (g_state != State::Listening) return RPC_S_NOT_LISTENING;
    StopListening(State::Stopping);
    return RPC_S_OK;
}

RPC_STATUS RPC_ENTRY RpcMgmtWaitServerListen(void) {
    for (bool first = true;; first = false) {
        SleepPoint stops{&g_stops, 0, false};
        {
            LockHold hold(g_lock);
            if (first && g_state != State::Listening && g_state != State::Stopping) return RPC_S_NOT_LISTENING;
            if (first && g_waiting) return RPC_S_ALREADY_LISTENING;
            g_waiting = g_threads != 0;
            if (!g_waiting) {
                g_state = State::Idle;
                return RPC_S_OK;
            }
            stops.value = g_stops.load();
        }
        SleepOn(&stops, 1, kNever);
    }
}

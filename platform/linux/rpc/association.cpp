// The client's connections.
//
// State: all associations of the process, under g_lock, with their connections, idle ones included, and the id of the
// group that the server gave the first connection. Each thread's list of connections needs no lock; a key of the C
// library releases it when the thread ends.
#include "rpc/association.h"

#include "base/list.h"
#include "base/lock.h"
#include "base/steps.h"
#include "base/timings.h"
#include "rpc/endpoint.h"
#include "rpc/fault_status.h"

#include <algorithm>
#include <new>
#include <pthread.h>
#include <sys/socket.h>

namespace oriel::rpc {

struct Association {
    std::string endpoint;
    unsigned bindings = 0;   // 0: closing
    unsigned references = 0; // bindings and connections
    Association* next = nullptr;
    Association* previous = nullptr;

    List<Connection> connections;
    Connection* idle = nullptr;
    unsigned idleCount = 0;

    uint32_t group = 0; // 0: none
    unsigned groupConnections = 0;
};

namespace {

RPC_STATUS FromRejection(const ContextResult& result) {
    switch (result.reason) {
    case kInterfaceNotSupported:
        return RPC_S_UNKNOWN_IF;
    case kTransferNotSupported:
        return RPC_S_UNSUPPORTED_TRANS_SYN;
    case kLocalLimitExceeded:
        return RPC_S_SERVER_TOO_BUSY;
    default:
        return RPC_S_CALL_FAILED_DNE;
    }
}

// The server's answer to a bind (or alter-context) that offered one context and named the group.
RPC_STATUS ReadAnswer(Connection& connection, const Message& message, const RPC_CLIENT_INTERFACE& interface,
                      uint32_t& group, bool& groupUnknown) {
    TerminationHold hold; // the results are on the heap
    const Header& header = message.header;
    const bool binding = connection.contextCount == 0;
    if (header.callId != connection.callId) return RPC_S_PROTOCOL_ERROR;
    if (binding && header.type == kBindNak) {
        uint16_t reason = 0;
        if (!DecodeBindNak(message.pdu, header, reason)) return RPC_S_PROTOCOL_ERROR;
        groupUnknown = reason == kNakNotSpecified && group != 0;
        return reason == kNakLocalLimitExceeded ? RPC_S_SERVER_TOO_BUSY : RPC_S_PROTOCOL_ERROR;
    }
    BindAck ack;
    if (header.type != (binding ? kBindAck : kAlterContextResponse) || !DecodeBindAck(message.pdu, header, ack) ||
        ack.results.size() != 1)
        return RPC_S_PROTOCOL_ERROR;
    if (binding) {
        if (ack.group == 0 || (group != 0 && ack.group != group) || ack.largestReceived < kSmallestFragment)
            return RPC_S_PROTOCOL_ERROR;
        group = ack.group;
        connection.channel.largestSent = std::min(ack.largestReceived, kLargestFragment);
    }
    const ContextResult& result = ack.results[0];
    if (result.result != kAccepted) return FromRejection(result);
    if (!(result.transfer == interface.TransferSyntax)) return RPC_S_PROTOCOL_ERROR;
    connection.contexts[connection.contextCount++] = {interface.InterfaceId, interface.TransferSyntax};
    return RPC_S_OK;
}

// Offers the interface as the next context of the connection and waits for the answer. The first offer is a bind: it
// names `group` (0: asks for a new one) and on success sets it to the group granted. Later ones are alter-contexts.
// RPC_S_SERVER_UNAVAILABLE: no answer, or the connection is dead. groupUnknown: the server does not know the group.
RPC_STATUS OfferInterface(Connection& connection, const RPC_CLIENT_INTERFACE& interface, uint32_t& group,
                          bool& groupUnknown, int64_t deadline) {
    Channel& channel = connection.channel;
    uint8_t pdu[128];
    size_t size = 0;
    {
        TerminationHold hold;
        try {
            const Header header{.type = connection.contextCount == 0 ? kBind : kAlterContext,
                                .callId = ++connection.callId};
            const Bind bind{.group = group,
                            .elements = {{.id = static_cast<uint16_t>(connection.contextCount),
                                          .abstractSyntax = interface.InterfaceId,
                                          .transfers = {interface.TransferSyntax}}}};
            size = EncodeBind(pdu, header, bind);
        } catch (const std::bad_alloc&) {
            return RPC_S_OUT_OF_MEMORY;
        }
    }
    // A full server answers before it has read anything, and closes; so the answer counts even when the send fails.
    const Transfer sent = SendPdu(channel, pdu, size);
    Message message;
    const Transfer received = Receive(channel, Side::Client, message, deadline);
    if (received != Transfer::Done)
        return StatusFromTransfer(sent != Transfer::Done ? sent : received, RPC_S_SERVER_UNAVAILABLE);
    try {
        return ReadAnswer(connection, message, interface, group, groupUnknown);
    } catch (const std::bad_alloc&) {
        return RPC_S_OUT_OF_MEMORY;
    }
}

constinit Lock g_lock;
List<Association> g_associations ORIEL_LOCK_CHECK(guarded_by(g_lock));

constinit thread_local Connection* t_connections __attribute__((tls_model("initial-exec"))) = nullptr;
pthread_key_t g_threadKey;

void Unreference(Association& association) ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    if (--association.references != 0) return;
    g_associations.Remove(association);
    delete &association;
}

// Other threads access it to cut the connection with the last binding, or after a fork.
void SetSocket(Connection& connection, int socket) {
    LockHold hold(g_lock);
    connection.channel.socket = socket;
}

void Disconnect(Connection& connection) ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    Association& association = *connection.association;
    if (connection.channel.socket < 0) return;
    CloseSocket(connection.channel);
    connection.isLate = false;
    connection.contextCount = 0;
    if (connection.group == association.group && association.group != 0 && --association.groupConnections == 0)
        association.group = 0; // the server has run it down
    connection.group = 0;
}

void Destroy(Connection* connection) ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    Association& association = *connection->association;
    Disconnect(*connection);
    association.connections.Remove(*connection);
    FreeBuffers(connection->channel);
    delete connection;
    Unreference(association);
}

void GiveUpConnections() {
    LockHold hold(g_lock);
    while (t_connections != nullptr) {
        Connection* connection = t_connections;
        t_connections = connection->nextOfOwner;
        Association& association = *connection->association;
        const bool enough = association.idleCount >= kMaxIdleConnections && association.groupConnections > 1;
        if (association.bindings == 0 || connection->channel.socket < 0 || enough) {
            Destroy(connection);
            continue;
        }
        connection->busy = false;
        Trim(connection->channel);
        connection->nextOfOwner = association.idle;
        association.idle = connection;
        ++association.idleCount;
    }
}

// Connections of associations without bindings.
void DropClosed() ORIEL_LOCK_CHECK(requires_capability(g_lock)) {
    for (Connection** link = &t_connections; *link != nullptr;) {
        Connection* connection = *link;
        if (connection->association->bindings != 0) {
            link = &connection->nextOfOwner;
            continue;
        }
        *link = connection->nextOfOwner;
        Destroy(connection);
    }
}

// Puts an idle connection, or a new one without a socket, into the thread's list. Null: out of memory.
Connection* AddConnection(Association& association) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_key_create(&g_threadKey, [](void*) { GiveUpConnections(); }); });
    WatchForFork();
    LockHold hold(g_lock);
    DropClosed();
    Connection* connection = association.idle;
    if (connection != nullptr) {
        association.idle = connection->nextOfOwner;
        --association.idleCount;
    } else {
        connection = new (std::nothrow) Connection;
        if (connection == nullptr) return nullptr;
        connection->association = &association;
        association.connections.Add(*connection);
        ++association.references;
    }
    connection->nextOfOwner = t_connections;
    t_connections = connection;
    pthread_setspecific(g_threadKey, t_connections); // not null, so that the destructor runs
    return connection;
}

RPC_STATUS GroupToName(Association& association, uint32_t& group) {
    LockHold hold(g_lock);
    group = association.group; // 0 asks for one
    return association.bindings != 0 ? RPC_S_OK : RPC_S_INVALID_BINDING;
}

// Records the group of the connection. False when it differs from that of the other connections: two threads asked for
// one at the same time, or the earlier group is gone.
bool EnterGroup(Connection& connection, uint32_t granted) {
    LockHold hold(g_lock);
    Association& association = *connection.association;
    connection.group = granted;
    if (association.group == 0) {
        association.group = granted;
        association.groupConnections = 0;
    }
    if (association.group != granted) return false;
    ++association.groupConnections;
    return true;
}

void ForgetGroup(Association& association, uint32_t group) {
    LockHold hold(g_lock);
    if (association.group == group) association.group = 0;
}

bool FindContext(Connection& connection, const RPC_CLIENT_INTERFACE& interface) {
    for (unsigned i = 0; i < connection.contextCount; ++i) {
        if (!(connection.contexts[i].abstractSyntax == interface.InterfaceId) ||
            !(connection.contexts[i].transferSyntax == interface.TransferSyntax))
            continue;
        connection.contextId = static_cast<uint16_t>(i);
        return true;
    }
    return false;
}

// A second interface on a bound connection.
RPC_STATUS AddContext(Connection& connection, const RPC_CLIENT_INTERFACE& interface) {
    if (connection.contextCount == kMaxContexts) return RPC_S_OUT_OF_RESOURCES;
    uint32_t group = connection.group;
    bool ignored = false;
    const int64_t deadline = std::min(DeadlineAfter(g_timings.rpcConnect), connection.deadline);
    const RPC_STATUS status = OfferInterface(connection, interface, group, ignored, deadline);
    switch (status) {
    case RPC_S_OK:
        FindContext(connection, interface);
        return status;
    case RPC_S_SERVER_UNAVAILABLE: // dead since its last call
        LoseConnection(connection);
        return Establish(connection, interface);
    case RPC_S_PROTOCOL_ERROR:
    case RPC_S_OUT_OF_MEMORY:
        LoseConnection(connection);
        return status;
    default: // refused; the earlier contexts are unchanged
        return status;
    }
}

} // namespace

Association* OpenAssociation(const std::string& endpoint) {
    LockHold hold(g_lock);
    // An association without bindings is being removed, with its connections cut.
    Association* association = g_associations.Find(
        [&](const Association& known) { return known.bindings != 0 && known.endpoint == endpoint; });
    if (association == nullptr) {
        association = new (std::nothrow) Association{.endpoint = endpoint};
        if (association == nullptr) return nullptr;
        g_associations.Add(*association);
    }
    ++association->bindings;
    ++association->references;
    return association;
}

void CloseAssociation(Association& association) {
    LockHold hold(g_lock);
    if (--association.bindings == 0) {
        while (association.idle != nullptr) {
            Connection* connection = association.idle;
            association.idle = connection->nextOfOwner;
            Destroy(connection);
        }
        // Their threads close the others. The server sees their end now.
        for (const Connection& connection : association.connections)
            shutdown(connection.channel.socket, SHUT_RDWR);
        DropClosed();
    }
    Unreference(association);
}

void LoseConnection(Connection& connection) {
    LockHold hold(g_lock);
    Disconnect(connection);
}

RPC_STATUS Establish(Connection& connection, const RPC_CLIENT_INTERFACE& interface) {
    Association& association = *connection.association;
    const int64_t deadline = std::min(DeadlineAfter(g_timings.rpcConnect), connection.deadline);
    connection.sendTimeIsShort = false;
    for (;;) {
        uint32_t named = 0;
        RPC_STATUS status = GroupToName(association, named);
        if (status != RPC_S_OK) return status;
        int socket = -1;
        status = ConnectToEndpoint(association.endpoint, deadline, socket);
        if (status != RPC_S_OK) return status;
        SetSocket(connection, socket);

        uint32_t group = named;
        bool groupUnknown = false;
        connection.callId = 0;
        status = OfferInterface(connection, interface, group, groupUnknown, deadline);
        if (status == RPC_S_OK && EnterGroup(connection, group)) {
            connection.contextId = 0;
            return RPC_S_OK;
        }
        LoseConnection(connection);
        if (status != RPC_S_OK && !groupUnknown) return status;
        if (groupUnknown) ForgetGroup(association, named); // the server has restarted since
    }
}

namespace {

// The server may still be at their last calls. They are kept until another connection stands: with its last connection
// the process would lose what it has open at the server.
void LoseLateConnections(const Association& association) {
    for (Connection* connection = t_connections; connection != nullptr; connection = connection->nextOfOwner)
        if (connection->association == &association && connection->isLate) LoseConnection(*connection);
}

} // namespace

RPC_STATUS TakeConnection(Association& association, const RPC_CLIENT_INTERFACE& interface, int64_t deadline,
                          Connection*& connection) {
    connection = t_connections;
    while (connection != nullptr && (connection->association != &association || connection->busy || connection->isLate))
        connection = connection->nextOfOwner;
    while (connection == nullptr || connection->isLate) {
        connection = AddConnection(association);
        if (connection == nullptr) return RPC_S_OUT_OF_MEMORY;
    }
    connection->deadline = deadline;
    if (connection->channel.socket < 0) {
        const RPC_STATUS status = Establish(*connection, interface);
        if (status == RPC_S_OK) LoseLateConnections(association);
        return status;
    }
    return FindContext(*connection, interface) ? RPC_S_OK : AddContext(*connection, interface);
}

namespace {

// The sockets belong to the parent. Threads of the child reconnect, as another process.
void LeaveAssociationsToParent() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    for (Association& association : g_associations) {
        for (Connection& connection : association.connections) {
            CloseSocket(connection.channel);
            connection.contextCount = 0;
            connection.group = 0;
        }
        association.group = 0;
    }
    g_lock.ForgetOwner();
}

} // namespace
} // namespace oriel::rpc

namespace oriel {
const ForkSteps kRpcClientFork{TakeForFork<rpc::g_lock>, ReleaseAfterFork<rpc::g_lock>, rpc::LeaveAssociationsToParent};
void GiveUpOwnConnections() {
    rpc::GiveUpConnections();
}
} // namespace oriel

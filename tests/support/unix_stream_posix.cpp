#include "unix_stream.h"

#include "private_machine.h"
#include "test_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

sockaddr_un Address(const std::string& endpoint) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, EndpointPath(endpoint).c_str(), sizeof address.sun_path - 1);
    return address;
}

bool WaitFor(int descriptor, int timeoutMs) {
    pollfd ready{descriptor, POLLIN, 0};
    return poll(&ready, 1, timeoutMs) > 0;
}

} // namespace

std::string EndpointPath(const std::string& endpoint) {
    return PrivateDirectory() + "/run/rpc/" + endpoint;
}

UnixStream::UnixStream(const std::string& endpoint) : m_descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = Address(endpoint);
    if (connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ADD_FAILURE() << address.sun_path << ": " << std::strerror(errno);
        Close();
    }
}

UnixStream::UnixStream(UnixStream&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

bool UnixStream::Send(const Bytes& bytes) {
    ssize_t count = 0;
    for (size_t sent = 0; sent < bytes.size() && count >= 0; sent += static_cast<size_t>(std::max<ssize_t>(count, 0)))
        count = send(m_descriptor, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    return count >= 0;
}

Bytes UnixStream::Receive(size_t count, int timeoutMs) {
    Bytes bytes(count);
    size_t received = 0;
    for (ssize_t more = 1; received < count && more > 0; received += static_cast<size_t>(std::max<ssize_t>(more, 0))) {
        const bool came = WaitFor(m_descriptor, timeoutMs);
        EXPECT_TRUE(came) << "nothing came within " << timeoutMs << " ms, after " << received << " bytes";
        more = came ? recv(m_descriptor, bytes.data() + received, count - received, 0) : 0;
    }
    bytes.resize(received);
    return bytes;
}

Bytes UnixStream::ReceivePdu(int timeoutMs) {
    Bytes pdu = Receive(16, timeoutMs);
    if (pdu.size() < 16) return {};
    const size_t size = pdu[8] | pdu[9] << 8;
    const Bytes rest = Receive(size > 16 ? size - 16 : 0, timeoutMs);
    pdu.insert(pdu.end(), rest.begin(), rest.end());
    return pdu;
}

void UnixStream::EndSending() {
    shutdown(m_descriptor, SHUT_WR);
}

Bytes UnixStream::ReceiveAll(int timeoutMs) {
    Bytes all;
    for (Bytes next; !(next = Receive(1, timeoutMs)).empty();)
        all.push_back(next[0]);
    return all;
}

bool UnixStream::PeerCloses(int timeoutMs) {
    return Receive(1, timeoutMs).empty();
}

void UnixStream::Close() {
    if (m_descriptor >= 0) close(m_descriptor);
    m_descriptor = -1;
}

UnixListener::UnixListener(const std::string& endpoint)
    : m_path(EndpointPath(endpoint)), m_descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    std::filesystem::create_directory(PrivateDirectory() + "/run/rpc");
    unlink(m_path.c_str()); // of a server that was killed
    const sockaddr_un address = Address(endpoint);
    if (bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_descriptor, 16) != 0)
        ADD_FAILURE() << m_path << ": " << std::strerror(errno);
}

UnixListener::~UnixListener() {
    close(m_descriptor);
    unlink(m_path.c_str());
}

UnixStream UnixListener::Accept(int timeoutMs) {
    if (!WaitFor(m_descriptor, timeoutMs)) {
        ADD_FAILURE() << "nobody connects";
        return UnixStream(-1);
    }
    return UnixStream(accept4(m_descriptor, nullptr, nullptr, SOCK_CLOEXEC));
}

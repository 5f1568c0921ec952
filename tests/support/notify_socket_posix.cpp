#include "notify_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

NotifySocket::NotifySocket(const std::string& path)
    : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
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

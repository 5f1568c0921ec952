#include "service/notify_socket.h"

#include "kernel/descriptor.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace oriel {

void TellSupervisor(const char* line) {
    const char* name = secure_getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = name != nullptr ? std::strlen(name) : 0;
    if (length < 2 || length >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) return;
    std::memcpy(address.sun_path, name, length);
    // A name in the abstract namespace, which begins with a NUL.
    if (name[0] == '@') address.sun_path[0] = '\0';
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) return;
    sendto(socket.Get(), line, std::strlen(line), MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

} // namespace oriel

// The supervisor's socket. State: its name, once a program that is no service has taken it out of the environment.
#include "service/notify_socket.h"

#include "base/descriptor.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <oriel_supervisor.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace oriel {

namespace {

std::string SocketName() {
    const char* name = secure_getenv("NOTIFY_SOCKET");
    return name != nullptr ? name : "";
}

void Send(const std::string& name, const char* line) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = name.size();
    if (length < 2 || length >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) return;
    std::memcpy(address.sun_path, name.data(), length);
    // A name in the abstract namespace, which begins with a NUL.
    if (name[0] == '@') address.sun_path[0] = '\0';
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) return;
    sendto(socket.Get(), line, std::strlen(line), MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

} // namespace

void TellSupervisor(const char* line) {
    Send(SocketName(), line);
}

} // namespace oriel

using namespace oriel;

void WINAPI OrielTellSupervisor(LPCSTR line) {
    // Never destroyed: threads may outlive the end of main().
    static const std::string& name = *new std::string(SocketName());
    unsetenv("NOTIFY_SOCKET");
    if (line != nullptr) Send(name, line);
}

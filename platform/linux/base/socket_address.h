// Addresses of Unix sockets whose path may be too long for one. No state.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace oriel {

// Of a socket in a folder, which the caller has open (O_PATH is enough): a path that is too long is reached through
// that descriptor. Throws std::bad_alloc.
inline sockaddr_un SocketAddress(const std::string& path, const std::string& name, int folder) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string direct = path + "/" + name;
    if (direct.size() < sizeof address.sun_path)
        std::memcpy(address.sun_path, direct.c_str(), direct.size() + 1);
    else
        std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder, name.c_str());
    return address;
}

} // namespace oriel

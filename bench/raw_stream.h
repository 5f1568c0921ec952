// Whole messages over a stream socket. No state.
#pragma once

#include <cstddef>
#include <sys/socket.h>

inline bool ReceiveAll(int descriptor, char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t count = recv(descriptor, bytes, size, 0);
        if (count <= 0) return false;
        bytes += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

inline bool SendAll(int descriptor, const char* bytes, size_t size) {
    return send(descriptor, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

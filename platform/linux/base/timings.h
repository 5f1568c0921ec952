// Every time limit of the layer that somebody may have to wait for, in milliseconds. Only tests change them, in their
// own process; no file or environment variable does. State: the one instance (futex.cpp).
#pragma once

#include <cstdint>

namespace oriel {

struct Timings {
    // Until the object server has answered. It takes some 20 us, unless it has to be started or was stopped.
    uint32_t objectServer = 5000;
    // Until a terminated thread has left the layer or entered its signal handler. Microseconds, unless the machine is
    // overloaded.
    uint32_t threadStop = 2000;
    // Between two attempts to get a named mutex, since a killed owner wakes nobody: the first interval, and the
    // longest. They grow with the wait (kernel/wait.cpp).
    uint32_t mutexFirstLook = 1;
    uint32_t mutexLook = 4;
    // While another process writes to the registry.
    uint32_t registryBusy = 5000;
    // RPC: until a connection is accepted or a bind is answered; from the first to the last byte of a message; for a
    // peer that does not read.
    uint32_t rpcConnect = 5000;
    uint32_t rpcMessage = 10000;
    uint32_t rpcSend = 30000;
    // For a call to the print server. Two seconds are allowed in all; the rest is for the work around the answers.
    uint32_t printServerCall = 1800;
    // Until printers in the network have announced themselves.
    uint32_t printerDiscovery = 5000;
};

__attribute__((visibility("default"))) extern Timings g_timings;

} // namespace oriel

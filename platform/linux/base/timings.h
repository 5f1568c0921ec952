// Every time limit of the layer that somebody may have to wait out, in milliseconds. Tests shorten those of their own
// process; nothing else changes them, and no file or variable of the environment can.
#pragma once

#include <cstdint>

namespace oriel {

struct Timings {
    // For the lock of the objects' folder, which is held for some 20 us at a time unless its holder has been stopped.
    uint32_t namesLock = 5000;
    // For a thread that is terminated to get out of the layer or into its signal handler. Microseconds, unless the
    // machine is badly loaded.
    uint32_t threadStop = 2000;
    // Between two looks of a thread that waits for a named mutex: nobody rings for an owner that was killed.
    uint32_t mutexSlice = 50;
    // For the registry, while another process writes.
    uint32_t registryBusy = 5000;
    // RPC: to be accepted, and to be answered a bind; from the first byte of a message to its last; for a peer that
    // takes nothing of what is sent.
    uint32_t rpcConnect = 5000;
    uint32_t rpcMessage = 10000;
    uint32_t rpcSend = 30000;
    // For a call to the print server: two seconds in all, the rest being for what is around the server's answers.
    uint32_t printServerCall = 1800;
};

__attribute__((visibility("default"))) extern Timings g_timings;

} // namespace oriel

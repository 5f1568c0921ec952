// Keeps TerminateThread from stopping a thread where it would take the layer down with it.
//
// A thread that TerminateThread stops in the middle of something leaves it as it is, for good: what it locked stays
// locked. Inside the layer it is therefore stopped only where it holds nothing of the layer's. LockHold (base/lock.h)
// and HandleUse (kernel/handles.h) see to that by themselves; other code that changes state shared by the process's
// threads puts a TerminationHold around it. It must not be around a wait for another process, unless that wait asks
// TerminationAsked() and comes back.
#pragma once

#include "base/futex.h"

namespace oriel {

// The calling thread's holds; its word, null until the thread has a record (kernel/thread.h), is kTerminationAsked once
// another thread wants to stop it. Initial-exec: a signal handler reads them.
extern constinit thread_local uint32_t t_terminationHolds __attribute__((tls_model("initial-exec")));
extern constinit thread_local const Word* t_terminationWord __attribute__((tls_model("initial-exec")));

constexpr uint32_t kRunning = 0;
constexpr uint32_t kTerminationAsked = 1;

// True: give up what can be given up, and return.
inline bool TerminationAsked() {
    return t_terminationWord != nullptr && t_terminationWord->load(std::memory_order_relaxed) == kTerminationAsked;
}

// Stops the calling thread for good if that was asked.
void StopHereIfAsked();

struct TerminationHold {
    TerminationHold() {
        ++t_terminationHolds;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    ~TerminationHold() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (--t_terminationHolds == 0 && TerminationAsked()) StopHereIfAsked();
    }
    TerminationHold(const TerminationHold&) = delete;
    TerminationHold& operator=(const TerminationHold&) = delete;
};

} // namespace oriel

// One exchange of requests with the print server, over in time.
#pragma once

#include "spooler/print_server.h"

#include <condition_variable>
#include <csignal>
#include <cups/cups.h>
#include <memory>
#include <mutex>
#include <thread>

namespace oriel {

struct DeleteMessage {
    void operator()(ipp_t* message) const { ippDelete(message); }
};
using Message = std::unique_ptr<ipp_t, DeleteMessage>;

// libcups writes to sockets that may be broken, and counts on the process ignoring SIGPIPE. The program decides about
// that, so the signal is kept from this thread instead.
class SigpipeHold {
public:
    SigpipeHold();
    ~SigpipeHold();
    SigpipeHold(const SigpipeHold&) = delete;
    SigpipeHold& operator=(const SigpipeHold&) = delete;

private:
    sigset_t m_before;
    bool m_pending;
};

// A connection for one call. At the deadline it is cut off, whatever libcups waits for then: a server that stands
// still, or that answers byte by byte.
class Connection {
public:
    // Throws std::bad_alloc and std::system_error (no thread can be had).
    explicit Connection(const PrintServerCall& call);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // A request about a printer, or about none (null), in the name of the call's user. Throws std::bad_alloc.
    Message Request(ipp_op_t operation, const char* queue) const;
    // Sends it. The answer, null when none came; *status is then IPP_STATUS_ERROR_INTERNAL, say.
    Message Ask(Message request, ipp_status_t* status);
    // What a call ends with that got no answer.
    DWORD Failure() const;

private:
    void CutOffAtDeadline();

    const PrintServerCall& m_call;
    SigpipeHold m_sigpipe;
    http_t* m_http = nullptr;
    int m_socket = -1; // a descriptor of ours for the connection: libcups may close its own at any time
    std::mutex m_lock;
    std::condition_variable m_ended;
    bool m_over = false; // under the lock
    std::thread m_watch;
};

} // namespace oriel

// One exchange with the print server, bounded in time. State: the connection.
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

// libcups writes to sockets that may be broken, and expects that the process ignores SIGPIPE. That is the program's
// decision, so the signal is blocked in this thread instead.
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

// A connection for one call. It is cut at the deadline, whatever libcups waits for: a server may be stopped, or answer
// byte by byte.
class Connection {
public:
    // Throws std::bad_alloc and std::system_error (no thread available).
    explicit Connection(const PrintServerCall& call);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // A request about a printer, or about none (null), as the call's user. Throws std::bad_alloc.
    Message Request(ipp_op_t operation, const char* queue) const;
    // Sends it and returns the answer; null when none came, with *status IPP_STATUS_ERROR_INTERNAL or similar.
    Message Ask(Message request, ipp_status_t* status);
    // The error of a call without an answer.
    DWORD Failure() const;

private:
    Message ReadAnswer(ipp_status_t* status);
    static Message Judged(Message answer, ipp_status_t* status);
    void CutOffAtDeadline();

    const PrintServerCall& m_call;
    SigpipeHold m_sigpipe;
    http_t* m_http = nullptr;
    int m_socket = -1; // our descriptor of the connection: libcups may close its own at any time
    std::mutex m_lock;
    std::condition_variable m_ended;
    bool m_over = false; // under the lock
    std::thread m_watch;
};

} // namespace oriel

#include "connection.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <rpcnterr.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <winerror.h>

namespace oriel {
namespace {

constexpr int kUsualPort = 631;
constexpr int64_t kNsPerMs = 1'000'000;
// How often libcups checks the deadline while it waits.
constexpr double kLookSeconds = 0.25;

int64_t NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1'000'000'000) + now.tv_nsec;
}

int GoOnWaiting(http_t*, void* deadline) {
    return NowNs() < *static_cast<const int64_t*>(deadline) ? 1 : 0;
}

// libcups would ask at the terminal.
const char* NoPassword(const char*, http_t*, const char*, const char*, void*) {
    return nullptr;
}

// It would set the process's handling of SIGPIPE, once; that is the program's business.
void InitializeQuietly() {
    static const bool done = [] {
        struct sigaction before {};
        sigaction(SIGPIPE, nullptr, &before);
        httpInitialize();
        sigaction(SIGPIPE, &before, nullptr);
        return true;
    }();
    static_cast<void>(done);
}

// host[:port][/version=...] or [address]:port.
void Divide(const std::string& server, std::string* host, int* port) {
    *host = server.substr(0, server.find('/'));
    *port = kUsualPort;
    const size_t colon = host->rfind(':');
    const size_t bracket = host->rfind(']');
    const bool onlyColon = host->find(':') == colon; // else an IPv6 address
    if (colon != std::string::npos && (bracket != std::string::npos ? colon > bracket : onlyColon)) {
        *port = std::atoi(host->c_str() + colon + 1);
        host->resize(colon);
    }
    if (host->starts_with('[') && host->ends_with(']')) *host = host->substr(1, host->size() - 2);
}

http_t* Connect(const std::string& server, int64_t deadlineNs) {
    std::string host = server;
    int port = 0;
    if (!server.starts_with('/')) Divide(server, &host, &port);
    const int64_t leftMs = (deadlineNs - NowNs()) / kNsPerMs;
    if (leftMs <= 0) return nullptr;
    return httpConnect2(host.c_str(), port, nullptr, AF_UNSPEC, cupsEncryption(), 1, static_cast<int>(leftMs), nullptr);
}

} // namespace

SigpipeHold::SigpipeHold() {
    sigset_t pending;
    sigpending(&pending);
    m_pending = sigismember(&pending, SIGPIPE) == 1;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
}

SigpipeHold::~SigpipeHold() {
    sigset_t pending;
    sigpending(&pending);
    if (!m_pending && sigismember(&pending, SIGPIPE) == 1) {
        sigset_t ours;
        sigemptyset(&ours);
        sigaddset(&ours, SIGPIPE);
        const timespec none{};
        sigtimedwait(&ours, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

Connection::Connection(const PrintServerCall& call) : m_call(call) {
    InitializeQuietly();
    cupsSetUser(call.user.c_str());
    cupsSetPasswordCB2(NoPassword, nullptr);
    m_http = Connect(call.server, call.deadlineNs);
    if (m_http == nullptr) return;
    httpSetTimeout(m_http, kLookSeconds, GoOnWaiting, const_cast<int64_t*>(&m_call.deadlineNs));
    m_socket = fcntl(httpGetFd(m_http), F_DUPFD_CLOEXEC, 0);
    // Signals of the program are not for this thread.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    try {
        m_watch = std::thread([this] { CutOffAtDeadline(); });
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        close(m_socket);
        httpClose(m_http);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Connection::~Connection() {
    if (m_watch.joinable()) {
        {
            const std::lock_guard hold(m_lock);
            m_over = true;
        }
        m_ended.notify_one();
        m_watch.join();
    }
    if (m_http != nullptr) httpClose(m_http);
    if (m_socket >= 0) close(m_socket);
}

void Connection::CutOffAtDeadline() {
    std::unique_lock hold(m_lock);
    const std::chrono::steady_clock::time_point deadline{std::chrono::nanoseconds(m_call.deadlineNs)};
    if (!m_ended.wait_until(hold, deadline, [this] { return m_over; })) shutdown(m_socket, SHUT_RDWR);
}

Message Connection::Request(ipp_op_t operation, const char* queue) const {
    Message request(ippNewRequest(operation));
    if (request == nullptr) throw std::bad_alloc();
    if (queue != nullptr) {
        char uri[HTTP_MAX_URI];
        httpAssembleURIf(HTTP_URI_CODING_ALL, uri, sizeof uri, "ipp", nullptr, "localhost", 0, "/printers/%s", queue);
        ippAddString(request.get(), IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, uri);
    }
    ippAddString(request.get(), IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr, m_call.user.c_str());
    return request;
}

// libcups reads an answer by its fields, with three system calls for each: 70,000 of them for 500 jobs. So the answer
// is read in large pieces first.
Message Connection::ReadAnswer(ipp_status_t* status) {
    constexpr size_t kAnswerMax = size_t{64} << 20;
    constexpr size_t kPiece = size_t{64} << 10;
    std::string body;
    for (;;) {
        const size_t size = body.size();
        body.resize(size + kPiece);
        const ssize_t count = httpRead2(m_http, body.data() + size, kPiece);
        body.resize(size + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count < 0 || body.size() > kAnswerMax) return nullptr;
        if (count == 0) break;
    }
    std::string_view left = body;
    const auto take = [](void* source, ipp_uchar_t* buffer, size_t size) {
        auto& left = *static_cast<std::string_view*>(source);
        const size_t count = std::min(size, left.size());
        std::memcpy(buffer, left.data(), count);
        left.remove_prefix(count);
        return static_cast<ssize_t>(count);
    };
    Message answer(ippNew());
    if (answer == nullptr || ippReadIO(&left, take, 1, nullptr, answer.get()) != IPP_STATE_DATA) return nullptr;
    *status = ippGetStatusCode(answer.get());
    return answer;
}

// Without an answer the last error may be that of an earlier request, which succeeded.
Message Connection::Judged(Message answer, ipp_status_t* status) {
    *status = cupsLastError();
    if (answer == nullptr && *status <= IPP_STATUS_OK_CONFLICTING) *status = IPP_STATUS_ERROR_INTERNAL;
    return answer;
}

Message Connection::Ask(Message request, ipp_status_t* status) {
    *status = IPP_STATUS_ERROR_INTERNAL;
    if (m_http == nullptr || NowNs() >= m_call.deadlineNs) return nullptr;
    const http_status_t sent = cupsSendRequest(m_http, request.get(), "/", ippLength(request.get()));
    if (sent == HTTP_STATUS_CONTINUE || sent == HTTP_STATUS_OK) {
        http_status_t got{};
        while ((got = httpUpdate(m_http)) == HTTP_STATUS_CONTINUE)
            if (NowNs() >= m_call.deadlineNs) return nullptr; // a server may say that without end
        if (got == HTTP_STATUS_OK) return ReadAnswer(status);
        Message refusal(cupsGetResponse(m_http, "/")); // proves who asks, where the server wants that
        if (got != HTTP_STATUS_UNAUTHORIZED || httpGetStatus(m_http) == HTTP_STATUS_CUPS_AUTHORIZATION_CANCELED)
            return Judged(std::move(refusal), status);
    }
    return Judged(Message(cupsDoRequest(m_http, request.release(), "/")), status);
}

DWORD Connection::Failure() const {
    return NowNs() >= m_call.deadlineNs ? ERROR_TIMEOUT : RPC_S_SERVER_UNAVAILABLE;
}

} // namespace oriel

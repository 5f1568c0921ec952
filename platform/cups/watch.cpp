// A watch on the printers: a subscription (RFC 3995) to their events and those of their jobs, which the server's
// notifier program for "oriel-events" addresses (notifier.c) reports by a datagram to a socket of this process. So
// nobody polls.
//
// The subscription is renewed now and then, since the server may have lost it, and at once when the file of the
// server's socket is another one: the server was restarted. No connection is kept, because it has a hundred of them for
// all its clients. State: the object's.
#include "watch.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>
#include <poll.h>
#include <random>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <time.h>
#include <unistd.h>
#include <winerror.h>

namespace oriel {
namespace {

constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int kLeaseSeconds = 3600;
constexpr int64_t kRenewNs = 300 * kSecondNs;
constexpr int64_t kRetryNs = 2 * kSecondNs; // while there is no server
constexpr int64_t kCallNs = 2 * kSecondNs;  // for all requests of one look
constexpr int kLookMs = 2000;               // at the file of the socket
constexpr const char* kScheme = "oriel-events:///";
constexpr const char* kEvents[] = {"printer-state-changed", "job-created", "job-completed", "job-state-changed",
                                   "job-progress"};

int64_t NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kSecondNs + now.tv_nsec;
}

std::string NewToken() {
    constexpr char kDigits[] = "0123456789abcdef";
    std::random_device random;
    std::string token;
    for (int i = 0; i < 32; ++i)
        token += kDigits[random() & 15];
    return token;
}

// In the abstract name space, so that the notifier's user needs no way to a directory. Anybody may send to it: that
// costs a look at the jobs.
int OpenSocket(const std::string& token) {
    const std::string name = "oriel-print-server-" + token;
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (socket >= 0 && bind(socket, reinterpret_cast<const sockaddr*>(&address), size) == 0) return socket;
    if (socket >= 0) close(socket);
    return -1;
}

// Which file the server's socket is; 0: it has none, or is another machine's.
uint64_t FileOf(const std::string& server) {
    struct stat file {};
    if (!server.starts_with('/') || stat(server.c_str(), &file) != 0) return 0;
    return file.st_ino ^ static_cast<uint64_t>(file.st_ctim.tv_sec) << 32 ^ static_cast<uint64_t>(file.st_ctim.tv_nsec);
}

} // namespace

Watch::Watch(const PrintServerCall& call, void (*changed)(void*), void* context)
    : m_call(call), m_changed(changed), m_context(context), m_uri(kScheme + NewToken()),
      m_socket(OpenSocket(m_uri.substr(std::strlen(kScheme)))), m_stop(eventfd(0, EFD_CLOEXEC)) {
    if (m_socket < 0 || m_stop < 0) throw std::bad_alloc();
}

Watch::~Watch() {
    if (m_thread.joinable()) {
        const uint64_t one = 1;
        if (write(m_stop, &one, sizeof one) != sizeof one) std::terminate(); // an eventfd takes it
        m_thread.join();
    }
    close(m_socket);
    close(m_stop);
}

ipp_status_t Watch::Ask(ipp_op_t operation, int* subscription, std::string* recipient) {
    Connection connection(m_call);
    // Of all printers: the server does not count the end of a job that was never begun as an event of its printer.
    Message request = connection.Request(operation, "");
    if (operation == IPP_OP_CREATE_PRINTER_SUBSCRIPTIONS) {
        ippAddString(request.get(), IPP_TAG_SUBSCRIPTION, IPP_TAG_URI, "notify-recipient-uri", nullptr, m_uri.c_str());
        ippAddStrings(request.get(), IPP_TAG_SUBSCRIPTION, IPP_TAG_KEYWORD, "notify-events",
                      static_cast<int>(std::size(kEvents)), nullptr, kEvents);
    } else {
        ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_INTEGER, "notify-subscription-id", *subscription);
    }
    if (operation == IPP_OP_CREATE_PRINTER_SUBSCRIPTIONS || operation == IPP_OP_RENEW_SUBSCRIPTION)
        ippAddInteger(request.get(), IPP_TAG_SUBSCRIPTION, IPP_TAG_INTEGER, "notify-lease-duration", kLeaseSeconds);
    ipp_status_t status{};
    const Message answer = connection.Ask(std::move(request), &status);
    if (answer == nullptr) return IPP_STATUS_ERROR_SERVICE_UNAVAILABLE;
    if (operation == IPP_OP_CREATE_PRINTER_SUBSCRIPTIONS)
        *subscription = ippGetInteger(ippFindAttribute(answer.get(), "notify-subscription-id", IPP_TAG_INTEGER), 0);
    if (recipient != nullptr) {
        const char* uri = ippGetString(ippFindAttribute(answer.get(), "notify-recipient-uri", IPP_TAG_URI), 0, nullptr);
        *recipient = uri != nullptr ? uri : "";
    }
    return status;
}

// A server that has lost its subscriptions counts them anew, so the number may be another watch's now.
bool Watch::IsOurs() {
    std::string recipient;
    return m_subscription > 0 &&
           Ask(IPP_OP_GET_SUBSCRIPTION_ATTRIBUTES, &m_subscription, &recipient) <= IPP_STATUS_OK_CONFLICTING &&
           recipient == m_uri;
}

// Renews the subscription, or makes one.
DWORD Watch::Subscribe() {
    m_call.deadlineNs = NowNs() + kCallNs;
    if (IsOurs() && Ask(IPP_OP_RENEW_SUBSCRIPTION, &m_subscription) <= IPP_STATUS_OK_CONFLICTING) return ERROR_SUCCESS;
    m_subscription = 0;
    const ipp_status_t status = Ask(IPP_OP_CREATE_PRINTER_SUBSCRIPTIONS, &m_subscription);
    if (status == IPP_STATUS_ERROR_SERVICE_UNAVAILABLE) return ERROR_TIMEOUT;
    // Without the notifier program the server takes no such address.
    return m_subscription > 0 ? DWORD{ERROR_SUCCESS} : DWORD{ERROR_NOT_SUPPORTED};
}

DWORD Watch::Begin() {
    const DWORD error = Subscribe();
    if (error != ERROR_SUCCESS) return error;
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return ERROR_SUCCESS;
}

void Watch::Run() {
    int64_t renewNs = NowNs() + kRenewNs;
    for (uint64_t file = FileOf(m_call.server);;) {
        pollfd all[] = {{m_stop, POLLIN, 0}, {m_socket, POLLIN, 0}};
        poll(all, 2, kLookMs);
        if (all[0].revents != 0) break;
        char byte = 0;
        bool changed = false;
        while (recv(m_socket, &byte, sizeof byte, 0) >= 0)
            changed = true;
        const uint64_t now = FileOf(m_call.server);
        if (now != file || NowNs() >= renewNs) {
            file = now;
            bool holds = false;
            try {
                holds = Subscribe() == ERROR_SUCCESS;
            } catch (const std::exception&) { // lack of memory or threads
            }
            renewNs = NowNs() + (holds ? kRenewNs : kRetryNs);
            changed = true; // events may have been lost, or the notifier program may not send any
        }
        if (changed) m_changed(m_context);
    }
    m_call.deadlineNs = NowNs() + kCallNs;
    try {
        if (IsOurs()) Ask(IPP_OP_CANCEL_SUBSCRIPTION, &m_subscription);
    } catch (const std::exception&) { // its lease ends
    }
}

} // namespace oriel

// State: the object's.
#include "mqtt/connection.h"

#include "base/failure.h"
#include "base/files.h"
#include "base/output.h"
#include "base/text.h"
#include "mqtt/topics.h"

#include <CLI/CLI.hpp>
#include <mosquitto.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>

namespace views {

namespace {

constexpr int kPort = 1883;
constexpr int kTlsPort = 8883;
constexpr int kKeepAliveS = 10; // a broker that says nothing for 15 s is gone
constexpr int kPollMs = 1000;
constexpr size_t kOutstandingMax = 100; // messages that the broker has not acknowledged
constexpr int kReadsAtOnce = 1000;
constexpr int kPauseMs = 500; // before the second attempt; doubled for each one
constexpr int kPauseMaxMs = 30000;
constexpr int kFarewellMs = 1000;
constexpr int kEndMs = 3000;
constexpr int kExactlyOnceOrMore = 1; // quality of service

bool UsesTls(const BrokerOptions& options) {
    return options.tls || !options.caFile.empty() || !options.certificateFile.empty();
}

int PortOf(const BrokerOptions& options) {
    return options.port != 0 ? options.port : UsesTls(options) ? kTlsPort : kPort;
}

std::string Reason(int code) {
    if (code == MOSQ_ERR_ERRNO) return std::strerror(errno);
    return mosquitto_strerror(code);
}

// The first line. Throws Failure.
std::string ReadPassword(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        throw UsageFailure("others can read the password file " + Printable(path), "chmod 600 it");
    std::string password = ReadWholeFile(path);
    password.resize(std::min(password.find_first_of("\r\n"), password.size()));
    return password;
}

} // namespace

void AddBrokerOptions(CLI::App& app, BrokerOptions& options) {
    options.prefix = kDefaultPrefix;
    app.add_option("--host", options.host, "The broker")->capture_default_str();
    app.add_option("--port", options.port, "Its port (default: 1883, with TLS 8883)")->check(CLI::Range(1, 65535));
    app.add_flag("--tls", options.tls, "Connect with TLS, and trust the authorities that the system trusts");
    app.add_option("--ca-file", options.caFile, "Connect with TLS, and trust the authorities in this PEM file");
    auto* certificate = app.add_option("--cert-file", options.certificateFile, "Certificate of this client, PEM");
    auto* key = app.add_option("--key-file", options.keyFile, "Key of that certificate, PEM");
    certificate->needs(key);
    key->needs(certificate);
    auto* user = app.add_option("--broker-user", options.user, "User name at the broker");
    app.add_option("--password-file", options.passwordFile, "File with the password of that user in its first line")
        ->needs(user);
    app.add_option("--prefix", options.prefix, "What all topics begin with")->capture_default_str();
}

void CheckBrokerOptions(const BrokerOptions& options) {
    if (options.host.empty()) throw UsageFailure("the broker has no name");
    if (!IsPrefix(options.prefix))
        throw UsageFailure("\"" + Printable(options.prefix) + "\" is no prefix of topics",
                           "give names separated by \"/\", without + # and %");
    for (const std::string& file : {options.caFile, options.certificateFile, options.keyFile})
        if (!file.empty()) ReadWholeFile(file);
    if (!options.passwordFile.empty()) ReadPassword(options.passwordFile);
}

std::string NameOf(const BrokerOptions& options) {
    return Printable(options.host) + ":" + std::to_string(PortOf(options));
}

// What libmosquitto calls, on the thread of the connection.
struct BrokerConnection::Callbacks {
    static BrokerConnection& Of(void* self) { return *static_cast<BrokerConnection*>(self); }

    static void OnConnect(mosquitto*, void* self, int code) {
        BrokerConnection& connection = Of(self);
        connection.m_refusal = code;
        connection.m_connected = code == 0;
        if (code == 0) connection.m_handler.Connected(connection);
    }
    static void OnMessage(mosquitto*, void* self, const mosquitto_message* message) {
        BrokerConnection& connection = Of(self);
        ++connection.m_received;
        connection.m_handler.Received(
            message->topic,
            std::string_view(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen)),
            message->retain);
    }
    static void OnSubscribe(mosquitto*, void* self, int, int, const int*) {
        ++Of(self).m_received;
        Of(self).m_handler.Subscribed();
    }
    static void OnPublish(mosquitto*, void* self, int number) {
        BrokerConnection& connection = Of(self);
        ++connection.m_received;
        const auto found = connection.m_outstanding.extract(number);
        if (found) connection.m_handler.Taken(found.mapped());
    }
};

BrokerConnection::BrokerConnection(const BrokerOptions& options, const std::string& clientId, const Outgoing& will,
                                   BrokerHandler& handler)
    : m_options(options), m_clientId(clientId), m_will(will), m_handler(handler),
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    CheckBrokerOptions(options);
    if (!options.passwordFile.empty()) m_password = ReadPassword(options.passwordFile);
    if (m_wake < 0) throw Failure{Exit::False, "cannot connect to a broker", std::strerror(errno), ""};
    mosquitto_lib_init();
    m_thread = std::thread([this] {
        Run();
        m_ended = true;
    });
}

BrokerConnection::~BrokerConnection() {
    m_ending = true;
    Ready();
    for (int waited = 0; !m_ended && waited < kEndMs; waited += 10)
        usleep(10000); // the thread may be in a call of the system that nothing ends
    if (!m_ended) _exit(static_cast<int>(Exit::Done));
    m_thread.join();
    mosquitto_lib_cleanup();
    close(m_wake);
}

void BrokerConnection::Ready() {
    const uint64_t one = 1;
    if (write(m_wake, &one, sizeof one) < 0) return; // it is set already
}

void BrokerConnection::Subscribe(const std::string& filter) {
    mosquitto_subscribe(m_client, nullptr, filter.c_str(), 0);
}

void BrokerConnection::Unsubscribe(const std::string& filter) {
    mosquitto_unsubscribe(m_client, nullptr, filter.c_str());
}

int BrokerConnection::Configure() {
    mosquitto_connect_callback_set(m_client, Callbacks::OnConnect);
    mosquitto_message_callback_set(m_client, Callbacks::OnMessage);
    mosquitto_subscribe_callback_set(m_client, Callbacks::OnSubscribe);
    mosquitto_publish_callback_set(m_client, Callbacks::OnPublish);
    mosquitto_max_inflight_messages_set(m_client, kOutstandingMax);
    int code = MOSQ_ERR_SUCCESS;
    if (!m_will.topic.empty())
        code = mosquitto_will_set(m_client, m_will.topic.c_str(), static_cast<int>(m_will.payload.size()),
                                  m_will.payload.data(), kExactlyOnceOrMore, true);
    if (code == MOSQ_ERR_SUCCESS && !m_options.user.empty())
        code = mosquitto_username_pw_set(m_client, m_options.user.c_str(),
                                         m_options.passwordFile.empty() ? nullptr : m_password.c_str());
    if (code != MOSQ_ERR_SUCCESS || !UsesTls(m_options)) return code;
    const auto orNull = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
    if (m_options.caFile.empty()) code = mosquitto_int_option(m_client, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
    if (code == MOSQ_ERR_SUCCESS && (!m_options.caFile.empty() || !m_options.certificateFile.empty()))
        code =
            mosquitto_tls_set(m_client, orNull(m_options.caFile), m_options.caFile.empty() ? "/etc/ssl/certs" : nullptr,
                              orNull(m_options.certificateFile), orNull(m_options.keyFile), nullptr);
    return code;
}

bool BrokerConnection::Send(const Outgoing& message) {
    int number = 0;
    const int code =
        mosquitto_publish(m_client, &number, message.topic.c_str(), static_cast<int>(message.payload.size()),
                          message.payload.data(), kExactlyOnceOrMore, message.retain);
    if (code == MOSQ_ERR_SUCCESS) m_outstanding[number] = message.topic;
    return code == MOSQ_ERR_SUCCESS;
}

void BrokerConnection::Publish() {
    while (m_connected && m_outstanding.size() < kOutstandingMax) {
        const std::optional<Outgoing> message = m_handler.Next();
        if (!message) return;
        Send(*message); // what a broken connection does not take, the next one gets
    }
}

// Until the connection ends; why it did.
int BrokerConnection::Attend() {
    while (!m_ending) {
        Publish();
        pollfd waits[2] = {{mosquitto_socket(m_client), POLLIN, 0}, {m_wake, POLLIN, 0}};
        if (waits[0].fd < 0) return MOSQ_ERR_CONN_LOST;
        if (mosquitto_want_write(m_client)) waits[0].events |= POLLOUT;
        if (poll(waits, 2, kPollMs) < 0 && errno != EINTR) return MOSQ_ERR_ERRNO;
        uint64_t count = 0;
        while (read(m_wake, &count, sizeof count) > 0) {
        }
        int code = MOSQ_ERR_SUCCESS;
        if ((waits[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            // TLS may have read more from the socket than one packet.
            uint64_t before;
            int reads = 0;
            do {
                before = m_received;
                code = mosquitto_loop_read(m_client, 1);
            } while (code == MOSQ_ERR_SUCCESS && m_received != before && ++reads < kReadsAtOnce);
        }
        if (code == MOSQ_ERR_SUCCESS && mosquitto_want_write(m_client)) code = mosquitto_loop_write(m_client, 1);
        if (code == MOSQ_ERR_SUCCESS) code = mosquitto_loop_misc(m_client);
        if (code != MOSQ_ERR_SUCCESS) return code;
    }
    // The will by hand, as the broker publishes none for a client that takes its leave.
    if (m_connected && !m_will.topic.empty() && Send(m_will)) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kFarewellMs);
        while (!m_outstanding.empty() && std::chrono::steady_clock::now() < end)
            if (mosquitto_loop(m_client, 50, 1) != MOSQ_ERR_SUCCESS) return MOSQ_ERR_CONN_LOST;
    }
    mosquitto_disconnect(m_client);
    mosquitto_loop(m_client, 50, 1);
    return MOSQ_ERR_SUCCESS;
}

void BrokerConnection::Pause(int milliseconds) {
    static thread_local std::minstd_rand random{std::random_device{}()};
    // Many clients of a broker that comes back do not arrive at once.
    const int jitter = std::uniform_int_distribution<int>(0, milliseconds / 4)(random);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds + jitter);
    while (!m_ending) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd wait = {m_wake, POLLIN, 0};
        if (left.count() <= 0) return;
        if (poll(&wait, 1, static_cast<int>(left.count())) <= 0) continue;
        uint64_t count = 0;
        while (read(m_wake, &count, sizeof count) > 0) {
        }
    }
}

void BrokerConnection::Run() {
    int pause = kPauseMs;
    while (!m_ending) {
        m_connected = false;
        m_refusal = 0;
        m_outstanding.clear();
        m_client = mosquitto_new(m_clientId.empty() ? nullptr : m_clientId.c_str(), true, this);
        int code = m_client == nullptr ? MOSQ_ERR_NOMEM : Configure();
        if (code == MOSQ_ERR_SUCCESS)
            code = mosquitto_connect(m_client, m_options.host.c_str(), PortOf(m_options), kKeepAliveS);
        if (code == MOSQ_ERR_SUCCESS) code = Attend();
        const std::string why = m_refusal != 0 ? mosquitto_connack_string(m_refusal) : Reason(code);
        if (m_client != nullptr) mosquitto_destroy(m_client);
        m_client = nullptr;
        if (m_ending) return;
        pause = m_connected ? kPauseMs : std::min(2 * pause, kPauseMaxMs);
        m_handler.Disconnected(why);
        Pause(pause);
    }
}

} // namespace views

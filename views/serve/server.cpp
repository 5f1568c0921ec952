// The HTTP server on libmicrohttpd.
//   1 answers   2 requests   3 the server
// State: the object's. The library's thread runs everything here but what makes, ends and ticks the server.
#include "serve/server.h"

#include "serve/clients.h"
#include "serve/metrics.h"
#include "serve/page.h"

#include "base/text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <microhttpd.h>
#include <strings.h>
#include <sys/resource.h>

namespace views {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr unsigned kConnectionsMost = 1000;
constexpr unsigned kPerAddressMost = 100;   // of other machines; on the loopback all have the same
constexpr size_t kConnectionMemory = 16384; // for the line and the headers of a request
constexpr unsigned kStuckSeconds = 20;      // without a byte in either direction
constexpr auto kMetricsFresh = 500ms;       // readers within this time share a document
constexpr int kSendBuffer = 65536;          // of a connection
constexpr size_t kPiece = 16384;            // of a message
constexpr size_t kNameMost = 2048;          // bytes of an argument

// ---- 1 answers

struct ResponseDeleter {
    void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, ResponseDeleter>;

Connection* ConnectionOf(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return static_cast<Connection*>(info->socket_context);
}

// Of the page and of all else: nothing from elsewhere, nothing inside another page, nothing guessed.
constexpr struct {
    const char* name;
    const char* value;
} kHeaders[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; base-uri 'none'; "
     "form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

Response Finished(MHD_Response* response, const char* type) {
    if (!response) return nullptr; // no memory; the connection is closed
    MHD_add_response_header(response, "Content-Type", type);
    for (const auto& header : kHeaders)
        MHD_add_response_header(response, header.name, header.value);
    return Response(response);
}

Response TextResponse(const std::string& text, const char* type) {
    return Finished(MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()), MHD_RESPMEM_MUST_COPY),
                    type);
}

constexpr char kJsonType[] = "application/json; charset=utf-8";
constexpr char kMetricsType[] = "text/plain; version=0.0.4; charset=utf-8";

} // namespace

struct Server::State {
    ServerOptions options;
    Board& board;
    Readers readers{board};
    Connections connections{};
    std::string cookie{}; // name
    std::atomic<uint64_t> refused = 0;
    // Of the library's thread.
    Response metrics{};
    Clock::time_point metricsMade{};
    MHD_Daemon* daemon = nullptr; // last: it uses the others
    Clock::time_point lateDue{};

    MHD_Result Send(MHD_Connection* connection, unsigned status, const Response& response) {
        if (status >= 400) ++refused;
        return response ? MHD_queue_response(connection, status, response.get()) : MHD_NO;
    }
    MHD_Result SendJson(MHD_Connection* connection, const std::string& json) {
        return Send(connection, MHD_HTTP_OK, TextResponse(json, kJsonType));
    }
    MHD_Result Refuse(MHD_Connection* connection, unsigned status, const char* why, const char* header = nullptr,
                      const char* value = nullptr) {
        const Response response = TextResponse(Json{{"error", why}}.dump() + "\n", kJsonType);
        if (response && header) MHD_add_response_header(response.get(), header, value);
        return Send(connection, status, response);
    }

    bool HasToken(MHD_Connection* connection) const;
    MHD_Result TakeToken(MHD_Connection* connection, const char* given);
    MHD_Result SendMetrics(MHD_Connection* connection);
    MHD_Result SendEvents(MHD_Connection* connection, bool headOnly);
    MHD_Result SendPrinter(MHD_Connection* connection, std::string_view name);
    MHD_Result SendTimeline(MHD_Connection* connection);
    MHD_Result Answer(MHD_Connection* connection, const char* path, const char* method);
};

// ---- 2 requests

namespace {

std::string_view Header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value ? value : "";
}

// Nothing: malformed. Empty: not given.
std::optional<std::string> Argument(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
    std::optional<std::string> decoded = PercentDecoded(value ? value : "");
    if (decoded && decoded->size() > kNameMost) return std::nullopt;
    return decoded;
}

// "90s", "15m", "2h", "1d" ago, or seconds since 1970, as milliseconds since then. Empty: a day ago.
std::optional<int64_t> SinceMs(const std::string& text) {
    constexpr int64_t kLongestSeconds = 100000000000;
    if (text.empty()) return NowMs() - 86400000;
    int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [unit, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || number < 0 || number > kLongestSeconds) return std::nullopt;
    if (unit == end) return number * 1000;
    static constexpr std::pair<char, int64_t> kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    for (const auto& [letter, seconds] : kUnits)
        if (*unit == letter && unit + 1 == end) return NowMs() - number * seconds * 1000;
    return std::nullopt;
}

bool NamesOneHost(MHD_Connection* connection) {
    int hosts = 0;
    const auto count = [](void* context, MHD_ValueKind, const char* name, const char*) {
        *static_cast<int*>(context) += strcasecmp(name, MHD_HTTP_HEADER_HOST) == 0;
        return MHD_YES;
    };
    MHD_get_connection_values(connection, MHD_HEADER_KIND, count, &hosts);
    return hosts == 1;
}

bool HasBody(MHD_Connection* connection) {
    const std::string_view length = Header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    return (!length.empty() && length != "0") || !Header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING).empty();
}

} // namespace

bool Server::State::HasToken(MHD_Connection* connection) const {
    if (options.token.empty()) return true;
    std::string_view given = Header(connection, MHD_HTTP_HEADER_AUTHORIZATION);
    static constexpr std::string_view kBearer = "Bearer ";
    if (given.starts_with(kBearer) && IsSame(given.substr(kBearer.size()), options.token)) return true;
    return IsSame(CookieValue(Header(connection, MHD_HTTP_HEADER_COOKIE), cookie), options.token);
}

// The token leaves the address, where others might see it, and becomes a cookie.
MHD_Result Server::State::TakeToken(MHD_Connection* connection, const char* given) {
    const std::optional<std::string> token = PercentDecoded(given);
    if (!token || !IsSame(*token, options.token))
        return Refuse(connection, MHD_HTTP_UNAUTHORIZED, "this is not the token", MHD_HTTP_HEADER_WWW_AUTHENTICATE,
                      "Bearer");
    const Response response = TextResponse("", "text/plain; charset=utf-8");
    if (!response) return MHD_NO;
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_LOCATION, "/");
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_SET_COOKIE,
                            (cookie + "=" + options.token + "; Path=/; HttpOnly; SameSite=Lax").c_str());
    return Send(connection, MHD_HTTP_SEE_OTHER, response);
}

MHD_Result Server::State::SendMetrics(MHD_Connection* connection) {
    const Clock::time_point now = Clock::now();
    if (!metrics || now - metricsMade >= kMetricsFresh) {
        const auto [all, reading] = connections.Count();
        metrics = TextResponse(MetricsDocument(board, {all, reading, refused}), kMetricsType);
        metricsMade = now;
    }
    return Send(connection, MHD_HTTP_OK, metrics);
}

MHD_Result Server::State::SendEvents(MHD_Connection* connection, bool headOnly) {
    constexpr char kType[] = "text/event-stream";
    if (headOnly) return Send(connection, MHD_HTTP_OK, TextResponse("", kType));
    if (!connections.BeginReading(ConnectionOf(connection)))
        return Refuse(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "there are too many readers of events",
                      MHD_HTTP_HEADER_RETRY_AFTER, "5");
    struct Context {
        Readers& readers;
        Reader* reader;
    };
    auto* reader = new Reader{.connection = connection, .place = board.PlaceOf(Header(connection, "Last-Event-ID"))};
    readers.Add(reader);
    auto* context = new Context{readers, reader};
    const Response response = Finished(MHD_create_response_from_callback(
                                           MHD_SIZE_UNKNOWN, kPiece,
                                           [](void* given, uint64_t, char* piece, size_t room) {
                                               auto* of = static_cast<Context*>(given);
                                               try {
                                                   return of->readers.Fill(*of->reader, piece, room);
                                               } catch (const std::exception&) { // no memory
                                                   return ssize_t{MHD_CONTENT_READER_END_WITH_ERROR};
                                               }
                                           },
                                           context,
                                           [](void* given) {
                                               auto* of = static_cast<Context*>(given);
                                               of->readers.Remove(of->reader);
                                               delete of;
                                           }),
                                       kType);
    if (!response) {
        readers.Remove(reader);
        delete context;
    }
    return Send(connection, MHD_HTTP_OK, response);
}

MHD_Result Server::State::SendPrinter(MHD_Connection* connection, std::string_view encoded) {
    const std::optional<std::string> name = PercentDecoded(encoded);
    const std::optional<std::string> machine = Argument(connection, "machine");
    if (!name || !machine || name->empty() || name->size() > kNameMost)
        return Refuse(connection, MHD_HTTP_BAD_REQUEST, "the name is malformed");
    const Board::Found found = board.PrinterDocument(*machine, *name);
    if (found.status == 409)
        return Refuse(connection, MHD_HTTP_CONFLICT, "several machines have a printer of this name: add ?machine=");
    if (found.status != 200) return Refuse(connection, MHD_HTTP_NOT_FOUND, "there is no such printer");
    return SendJson(connection, found.json);
}

MHD_Result Server::State::SendTimeline(MHD_Connection* connection) {
    const std::optional<std::string> machine = Argument(connection, "machine");
    const std::optional<std::string> name = Argument(connection, "printer");
    const std::optional<std::string> since = Argument(connection, "since");
    const std::optional<int64_t> sinceMs = since ? SinceMs(*since) : std::nullopt;
    if (!machine || !name || !sinceMs)
        return Refuse(connection, MHD_HTTP_BAD_REQUEST,
                      "an argument is malformed; since is 90s, 15m, 2h, 1d, or seconds since 1970");
    const Board::Found found = board.TimelineDocument(*machine, *name, *sinceMs);
    if (found.status != 200) return Refuse(connection, MHD_HTTP_NOT_FOUND, "there is no such printer");
    return SendJson(connection, found.json);
}

MHD_Result Server::State::Answer(MHD_Connection* connection, const char* path, const char* method) {
    const std::string_view verb = method;
    if (verb != MHD_HTTP_METHOD_GET && verb != MHD_HTTP_METHOD_HEAD)
        return Refuse(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "this server only reads: GET or HEAD",
                      MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    if (HasBody(connection)) return Refuse(connection, MHD_HTTP_BAD_REQUEST, "a request has no body here");
    if (!NamesOneHost(connection)) return Refuse(connection, MHD_HTTP_BAD_REQUEST, "a request names one host");
    if (options.listen.loopback && !IsLoopbackName(Header(connection, MHD_HTTP_HEADER_HOST)))
        return Refuse(connection, MHD_HTTP_MISDIRECTED_REQUEST,
                      "this server is localhost, not the host of the request");

    const std::string_view wanted = path;
    if (const char* token = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "token");
        token && wanted == "/" && !options.token.empty())
        return TakeToken(connection, token);
    if (!HasToken(connection))
        return Refuse(connection, MHD_HTTP_UNAUTHORIZED,
                      "a token is needed: open /?token=TOKEN, or send Authorization: Bearer TOKEN",
                      MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer");

    for (const PageFile& file : kPageFiles)
        if (wanted == file.path)
            return Send(
                connection, MHD_HTTP_OK,
                Finished(MHD_create_response_from_buffer(file.content.size(), const_cast<char*>(file.content.data()),
                                                         MHD_RESPMEM_PERSISTENT),
                         file.type));
    static constexpr std::string_view kPrinter = "/api/printers/";
    if (wanted == "/api/printers") return SendJson(connection, board.PrintersDocument());
    if (wanted.starts_with(kPrinter)) return SendPrinter(connection, wanted.substr(kPrinter.size()));
    if (wanted == "/api/timeline") return SendTimeline(connection);
    if (wanted == "/events") return SendEvents(connection, verb == MHD_HTTP_METHOD_HEAD);
    if (wanted == "/metrics") return SendMetrics(connection);
    return Refuse(connection, MHD_HTTP_NOT_FOUND, "there is nothing here; / is the page");
}

// ---- 3 the server

namespace {

MHD_Result OnRequest(void* state, MHD_Connection* connection, const char* path, const char* method, const char*,
                     const char*, size_t* size, void** context) {
    static char begun;
    auto* server = static_cast<Server::State*>(state);
    try {
        // The first call is for the headers alone. What is answered then closes the connection, as a body must.
        if (*context == nullptr && !HasBody(connection)) {
            *context = &begun;
            return MHD_YES;
        }
        *size = 0;
        return server->Answer(connection, path, method);
    } catch (const std::exception&) { // no memory
        return MHD_NO;
    }
}

// Names and arguments are decoded where they are used, so that a malformed one is noticed.
size_t DecodeNothing(void*, MHD_Connection*, char* text) {
    return std::strlen(text);
}

void OnConnection(void* state, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode code) {
    auto* server = static_cast<Server::State*>(state);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        // The kernel would keep megabytes for each slow reader.
        setsockopt(info->connect_fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
        *context = server->connections.Add(info->connect_fd);
    } else {
        server->connections.Remove(static_cast<Connection*>(*context));
    }
}

void OnCompleted(void* state, MHD_Connection* connection, void**, MHD_RequestTerminationCode) {
    static_cast<Server::State*>(state)->connections.Renew(ConnectionOf(connection));
}

// What other programs send wrong is no news of this one.
void LogNothing(void*, const char*, va_list) {}

void AllowManyConnections() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

Server::Server(const ServerOptions& options, Board& board) : m_state(new State{.options = options, .board = board}) {
    State& state = *m_state;
    AllowManyConnections();
    const unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC | MHD_ALLOW_SUSPEND_RESUME |
                           (options.listen.address.ss_family == AF_INET6 ? MHD_USE_IPv6 : 0);
    state.daemon =
        MHD_start_daemon(flags, 0, nullptr, nullptr, OnRequest, &state,                                      //
                         MHD_OPTION_EXTERNAL_LOGGER, LogNothing, nullptr,                                    //
                         MHD_OPTION_SOCK_ADDR, reinterpret_cast<const sockaddr*>(&options.listen.address),   //
                         MHD_OPTION_CONNECTION_LIMIT, kConnectionsMost,                                      //
                         MHD_OPTION_PER_IP_CONNECTION_LIMIT, options.listen.loopback ? 0u : kPerAddressMost, //
                         MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory,                              //
                         MHD_OPTION_CONNECTION_TIMEOUT, kStuckSeconds,                                       //
                         MHD_OPTION_UNESCAPE_CALLBACK, DecodeNothing, nullptr,                               //
                         MHD_OPTION_NOTIFY_CONNECTION, OnConnection, &state,                                 //
                         MHD_OPTION_NOTIFY_COMPLETED, OnCompleted, &state,                                   //
                         MHD_OPTION_STRICT_FOR_CLIENT, 1,                                                    //
                         MHD_OPTION_END);
    if (state.daemon == nullptr)
        throw Failure{Exit::False, "cannot listen at " + options.listen.host, std::strerror(errno),
                      "choose another port with --port"};
    state.cookie = "oriel_" + std::to_string(Port());
}

Server::~Server() {
    // None may be suspended when the library ends.
    m_state->readers.Resume(true);
    MHD_stop_daemon(m_state->daemon);
}

uint16_t Server::Port() const {
    return MHD_get_daemon_info(m_state->daemon, MHD_DAEMON_INFO_BIND_PORT)->port;
}

void Server::Tick() {
    m_state->readers.Resume(false);
    if (Clock::now() < m_state->lateDue) return;
    m_state->lateDue = Clock::now() + 1s;
    m_state->connections.ShutLate();
}

std::chrono::milliseconds Server::TickDue() const {
    return m_state->readers.Waiting() ? 20ms : 1000ms;
}

} // namespace views

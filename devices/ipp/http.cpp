// State: the object's.
#include "http.h"

#include <algorithm>
#include <array>
#include <cups/cups.h>
#include <memory>
#include <string_view>

namespace devices {
namespace {

constexpr size_t kAnswerMax = 256 * 1024; // some twenty times what the largest printer tells
constexpr long kOk = 200;
constexpr long kUnauthorized = 401;
constexpr long kForbidden = 403;
constexpr long kNotFound = 404;
constexpr long kUpgradeRequired = 426;
constexpr int kWaitMs = 1000; // between looks whether it is cut off

std::string Hexadecimal(const unsigned char* bytes, size_t count) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

// SHA-256 of the first certificate in PEM. Empty: there is none.
std::string FingerprintOf(std::string_view pem) {
    constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
    const size_t begin = pem.find(kBegin);
    const size_t end = pem.find("-----END", begin);
    if (begin == pem.npos || end == pem.npos) return {};
    const std::string text(pem.substr(begin + kBegin.size(), end - begin - kBegin.size()));
    std::string der(text.size() + 1, '\0');
    int size = static_cast<int>(der.size());
    if (httpDecode64_2(der.data(), &size, text.c_str()) == nullptr || size <= 0) return {};
    std::array<unsigned char, 32> hash{};
    const ssize_t length = cupsHashData("sha2-256", der.data(), static_cast<size_t>(size), hash.data(), hash.size());
    return length == static_cast<ssize_t>(hash.size()) ? Hexadecimal(hash.data(), hash.size()) : "";
}

} // namespace

namespace {

// The server as libcups finds it: CUPS_SERVER, client.conf, this machine's socket.
bool ParseQueue(const std::string& queue, Address* address, std::string* error) {
    char uri[HTTP_MAX_URI];
    if (queue.empty() || queue.find_first_of("/#?") != queue.npos ||
        httpAssembleURIf(HTTP_URI_CODING_ALL, uri, sizeof uri, "ipp", nullptr, "localhost", 0, "/printers/%s",
                         queue.c_str()) < HTTP_URI_STATUS_OK) {
        *error = "\"" + queue + "\" is no name of a queue";
        return false;
    }
    constexpr std::string_view kHost = "ipp://localhost";
    address->uri = uri;
    address->path = address->uri.substr(kHost.size());
    address->host = cupsServer();
    address->port = ippPort();
    if (address->host.starts_with('/')) {
        address->socket = address->host;
        address->host = "localhost";
    }
    return true;
}

} // namespace

bool ParseAddress(const std::string& uri, Address* address, std::string* error) {
    constexpr std::string_view kQueue = "cups:";
    if (uri.starts_with(kQueue)) return ParseQueue(uri.substr(kQueue.size()), address, error);
    char scheme[32], user[256], host[256], path[1024];
    int port = 0;
    const http_uri_status_t status = httpSeparateURI(HTTP_URI_CODING_ALL, uri.c_str(), scheme, sizeof scheme, user,
                                                     sizeof user, host, sizeof host, &port, path, sizeof path);
    const std::string_view kind = scheme;
    if (status < HTTP_URI_STATUS_OK || (kind != "ipp" && kind != "ipps") || *host == '\0' || *user != '\0') {
        *error = "\"" + uri + "\" is no address such as ipp://printer/ipp/print";
        return false;
    }
    address->secure = kind == "ipps";
    address->host = host;
    address->port = port > 0 ? port : 631;
    if (std::string_view(path) != "/" && *path != '\0') address->path = path;
    char full[HTTP_MAX_URI];
    httpAssembleURI(HTTP_URI_CODING_ALL, full, sizeof full, scheme, nullptr, host, address->port,
                    address->path.c_str());
    address->uri = full;
    return true;
}

Http::Http(const Address& address) : m_address(address), m_multi(curl_multi_init()), m_easy(curl_easy_init()) {
    m_headers = curl_slist_append(nullptr, "Content-Type: application/ipp");
    m_headers = curl_slist_append(m_headers, "Expect:"); // not every printer knows it
    if (!IsMade()) return;
    const bool bare = address.host.find(':') != std::string::npos; // an IPv6 address
    const std::string url = std::string(address.secure ? "https://" : "http://") + (bare ? "[" : "") + address.host +
                            (bare ? "]" : "") + ":" + std::to_string(address.port) + address.path;
    curl_easy_setopt(m_easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(m_easy, CURLOPT_PROTOCOLS_STR, address.secure ? "https" : "http");
    curl_easy_setopt(m_easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
    if (!address.socket.empty()) curl_easy_setopt(m_easy, CURLOPT_UNIX_SOCKET_PATH, address.socket.c_str());
    curl_easy_setopt(m_easy, CURLOPT_PROXY, "");
    curl_easy_setopt(m_easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_easy, CURLOPT_HTTPHEADER, m_headers);
    curl_easy_setopt(m_easy, CURLOPT_USERAGENT, "Oriel");
    curl_easy_setopt(m_easy, CURLOPT_POST, 1L);
    // A printer makes its own certificate, so no authority vouches for it. BeforeRequest compares it with the trusted
    // one instead.
    curl_easy_setopt(m_easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(m_easy, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(m_easy, CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(m_easy, CURLOPT_PREREQFUNCTION, BeforeRequest);
    curl_easy_setopt(m_easy, CURLOPT_PREREQDATA, this);
    curl_easy_setopt(m_easy, CURLOPT_WRITEFUNCTION, TakeBody);
    curl_easy_setopt(m_easy, CURLOPT_WRITEDATA, this);
    curl_multi_setopt(m_multi, CURLMOPT_MAXCONNECTS, 1L);
}

Http::~Http() {
    if (m_easy != nullptr) curl_easy_cleanup(m_easy);
    if (m_multi != nullptr) curl_multi_cleanup(m_multi);
    curl_slist_free_all(m_headers);
}

size_t Http::TakeBody(char* data, size_t size, size_t count, void* self) {
    Http& http = *static_cast<Http*>(self);
    const size_t length = size * count;
    http.m_tooLarge = length > kAnswerMax - http.m_body.size();
    if (http.m_tooLarge) return 0;
    http.m_body.append(data, length);
    return length;
}

// False: the connection has no certificate. One that is reused tells it no more.
bool Http::ReadCertificate() {
    curl_certinfo* chain = nullptr;
    if (curl_easy_getinfo(m_easy, CURLINFO_CERTINFO, &chain) == CURLE_OK && chain != nullptr &&
        chain->num_of_certs > 0) {
        m_certificate.clear();
        constexpr std::string_view kField = "Cert:";
        for (const curl_slist* line = chain->certinfo[0]; line != nullptr; line = line->next)
            if (std::string_view(line->data).starts_with(kField)) m_certificate = FingerprintOf(line->data);
    }
    return !m_certificate.empty();
}

// The connection is made and encrypted, and nothing was sent yet.
int Http::BeforeRequest(void* self, char*, char*, int, int) {
    Http& http = *static_cast<Http*>(self);
    if (!http.m_address.secure) return CURL_PREREQFUNC_OK;
    const bool trusted = http.ReadCertificate() && (http.m_trusted.empty() || http.m_certificate == http.m_trusted);
    return trusted ? CURL_PREREQFUNC_OK : CURL_PREREQFUNC_ABORT;
}

CURLcode Http::Perform(const std::function<bool()>& isCut) {
    if (curl_multi_add_handle(m_multi, m_easy) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
    CURLcode result = CURLE_OPERATION_TIMEDOUT;
    for (int running = 1; running != 0 && !isCut();) {
        if (curl_multi_perform(m_multi, &running) != CURLM_OK) break;
        int left = 0;
        for (const CURLMsg* message = nullptr; (message = curl_multi_info_read(m_multi, &left)) != nullptr;)
            if (message->msg == CURLMSG_DONE) result = message->data.result;
        if (running != 0) curl_multi_poll(m_multi, nullptr, 0, kWaitMs, nullptr);
    }
    return result;
}

void Http::Wake() {
    curl_multi_wakeup(m_multi);
}

void Http::Judge(CURLcode result, Exchange* exchange) {
    const auto say = [&](Outcome outcome, const std::string& trouble) {
        exchange->outcome = outcome;
        exchange->trouble = trouble;
    };
    const std::string who =
        m_address.socket.empty() ? m_address.host + " port " + std::to_string(m_address.port) : "the print server";
    switch (result) {
    case CURLE_OK:
        break;
    case CURLE_COULDNT_RESOLVE_HOST:
        return say(Outcome::NoAnswer, "the name " + m_address.host + " is not known");
    case CURLE_COULDNT_CONNECT:
        return say(Outcome::NoAnswer, "no connection to " + who);
    case CURLE_OPERATION_TIMEDOUT:
        return say(Outcome::NoAnswer, who + " does not answer in time");
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
        return say(Outcome::NoAnswer, who + " ends the connection without an answer");
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
        return say(Outcome::Refused, who + " speaks no TLS that is safe enough");
    case CURLE_ABORTED_BY_CALLBACK:
        return m_certificate.empty() ? say(Outcome::Refused, who + " shows no certificate")
                                     : say(Outcome::CertificateChanged,
                                           who + " has another certificate than the trusted one: " + m_certificate +
                                               " instead of " + m_trusted);
    case CURLE_OUT_OF_MEMORY: // also of a header that is too long
        return say(Outcome::Garbled, "the answer is too large");
    case CURLE_WRITE_ERROR:
        return say(Outcome::Garbled, m_tooLarge ? "the answer is larger than any printer's" : "the answer is no IPP");
    default:
        return say(Outcome::Garbled, std::string("the answer is no HTTP: ") + curl_easy_strerror(result));
    }
    long status = 0;
    curl_easy_getinfo(m_easy, CURLINFO_RESPONSE_CODE, &status);
    switch (status) {
    case kOk:
        exchange->outcome = Outcome::Answered;
        exchange->body = std::move(m_body);
        return;
    case kUnauthorized:
    case kForbidden:
        return say(Outcome::Refused, who + " wants a user name and a password");
    case kUpgradeRequired:
        return say(Outcome::Refused, who + " wants encryption: use ipps:// instead of ipp://");
    case kNotFound:
        return say(Outcome::Garbled, who + " has no printer at " + m_address.path);
    default:
        return say(Outcome::Garbled, who + " answers with the HTTP status " + std::to_string(status));
    }
}

Exchange Http::Post(const std::string& request, const std::string& trusted, uint32_t limitMs,
                    const std::function<bool()>& isCut) {
    m_trusted = trusted;
    m_body.clear();
    m_tooLarge = false;
    curl_easy_setopt(m_easy, CURLOPT_POSTFIELDS, request.data());
    curl_easy_setopt(m_easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.size()));
    curl_easy_setopt(m_easy, CURLOPT_TIMEOUT_MS, static_cast<long>(limitMs));
    Exchange exchange;
    Judge(Perform(isCut), &exchange);
    exchange.certificate = m_certificate;
    curl_multi_remove_handle(m_multi, m_easy);
    return exchange;
}

} // namespace devices

// Addresses, tokens, names. No state.
#include "serve/access.h"

#include "base/failure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace views {

namespace {

constexpr size_t kTokenLeast = 16;
constexpr size_t kTokenMost = 256;

bool IsLoopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET)
        return ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

ListenAddress AddressOf(const std::string& host, uint16_t port) {
    const std::string name = host == "localhost" ? "127.0.0.1" : host;
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(name.c_str(), std::to_string(port).c_str(), &hints, &found) != 0 || !found)
        throw UsageFailure("\"" + host + "\" is not an address to listen on",
                           "give a number such as 192.0.2.7, 0.0.0.0 or ::, or \"localhost\"");
    ListenAddress listen;
    listen.size = found->ai_addrlen;
    std::memcpy(&listen.address, found->ai_addr, found->ai_addrlen);
    listen.loopback = IsLoopback(listen.address);
    listen.host = listen.address.ss_family == AF_INET6 ? "[" + name + "]" : name;
    freeaddrinfo(found);
    return listen;
}

std::string ReadToken(const std::string& path) {
    const std::string what = "cannot take the token from " + path;
    struct File {
        int descriptor;
        ~File() {
            if (descriptor >= 0) close(descriptor);
        }
    } file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat status {};
    if (file.descriptor < 0 || fstat(file.descriptor, &status) != 0)
        throw Failure{Exit::False, what, std::strerror(errno), ""};
    if (!S_ISREG(status.st_mode)) throw Failure{Exit::False, what, "it is not a file", ""};
    if (status.st_mode & S_IRWXO)
        throw Failure{Exit::False, what, "other users may read or change it", "chmod o= " + path};
    char text[kTokenMost + 2];
    const ssize_t size = read(file.descriptor, text, sizeof text);
    if (size < 0) throw Failure{Exit::False, what, std::strerror(errno), ""};
    std::string token(text, static_cast<size_t>(size));
    if (token.ends_with('\n')) token.pop_back();
    // What a header and a cookie can carry as it is.
    const bool plain = std::all_of(token.begin(), token.end(),
                                   [](char c) { return c > ' ' && c < 0x7f && !std::strchr("\",;\\%&+#", c); });
    if (token.size() < kTokenLeast || token.size() > kTokenMost || !plain)
        throw Failure{Exit::False, what, "a token is one line of 16 to 256 letters, digits and - . _ ~",
                      "make one: (umask 077; openssl rand -hex 24 > " + path + ")"};
    return token;
}

bool IsSame(std::string_view given, std::string_view wanted) {
    unsigned char differs = given.size() != wanted.size();
    for (size_t i = 0; i < wanted.size(); ++i)
        differs |= static_cast<unsigned char>((i < given.size() ? given[i] : 0) ^ wanted[i]);
    return differs == 0;
}

bool IsLoopbackName(std::string_view host) {
    // The port is what stands behind the last colon, outside of brackets.
    const size_t colon = host.rfind(':');
    if (colon != std::string_view::npos && host.find(']', colon) == std::string_view::npos) {
        const std::string_view port = host.substr(colon + 1);
        if (!std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; })) return false;
        host = host.substr(0, colon);
    }
    static constexpr std::string_view kLocalhost = "localhost";
    if (host.size() == kLocalhost.size() && strncasecmp(host.data(), kLocalhost.data(), host.size()) == 0) return true;
    if (host == "[::1]") return true;
    // 127.0.0.0/8, in four numbers.
    if (!host.starts_with("127.")) return false;
    int dots = 0;
    for (const char c : host) {
        if (c == '.') ++dots;
        if (c != '.' && (c < '0' || c > '9')) return false;
    }
    return dots == 3;
}

std::optional<std::string> PercentDecoded(std::string_view text) {
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        const int high = HexDigit(text[i + 1]);
        const int low = HexDigit(text[i + 2]);
        if (high < 0 || low < 0 || (high == 0 && low == 0)) return std::nullopt;
        decoded += static_cast<char>(high << 4 | low);
        i += 2;
    }
    return decoded;
}

std::string_view CookieValue(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        const size_t end = std::min(header.find(';'), header.size());
        std::string_view pair = header.substr(0, end);
        header.remove_prefix(std::min(end + 1, header.size()));
        while (pair.starts_with(' '))
            pair.remove_prefix(1);
        const size_t equals = pair.find('=');
        if (equals != std::string_view::npos && pair.substr(0, equals) == name) return pair.substr(equals + 1);
    }
    return {};
}

} // namespace views

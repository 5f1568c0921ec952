// Who may read: the address to listen on, the token, the names that a request may address the server by. State: the
// object's, constant once made.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <sys/socket.h>

namespace views {

struct ListenAddress {
    sockaddr_storage address{};
    socklen_t size = 0;
    bool loopback = false;
    std::string host; // as a URL has it: "127.0.0.1", "[::1]"
};
// host: a numeric address, or "localhost". Throws Failure.
ListenAddress AddressOf(const std::string& host, uint16_t port);

// The token of a file: one line of 16 to 256 printable characters without blanks. Other users must not be able to read
// the file. Throws Failure.
std::string ReadToken(const std::string& path);

// Takes as long for a wrong text as for the right one.
bool IsSame(std::string_view given, std::string_view wanted);

// Whether the Host header names this machine's loopback, with any port. A page of another site whose name was made to
// lead here (DNS rebinding) has its own name there.
bool IsLoopbackName(std::string_view host);

// Percent-decoded; nothing when it is malformed or has a NUL.
std::optional<std::string> PercentDecoded(std::string_view text);

// The value of a cookie in a Cookie header; empty without one.
std::string_view CookieValue(std::string_view header, std::string_view name);

} // namespace views

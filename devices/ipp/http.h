// IPP requests over HTTP and HTTPS (RFC 8010, RFC 7472), through libcurl, which bounds every step in time: the name,
// the connection, the handshake, the answer, and an answer that comes byte by byte. (The HTTP client of libcups cannot
// be interrupted in a handshake.) State: the object's connection, which is kept between requests.
#pragma once

#include "module.h"

#include <curl/curl.h>
#include <functional>
#include <string>

namespace devices {

// The parts of ipp://HOST[:PORT]/PATH or ipps://; or of cups:QUEUE, a queue of this machine's print server.
struct Address {
    bool secure = false;
    std::string host{}; // without brackets
    int port = 631;
    std::string path{"/ipp/print"};
    std::string uri{};    // in full
    std::string socket{}; // of this machine's print server, where it listens at one
};
// False: *error says what is wrong.
bool ParseAddress(const std::string& uri, Address* address, std::string* error);

struct Exchange {
    Outcome outcome = Outcome::NoAnswer;
    std::string trouble{};
    std::string certificate{}; // SHA-256 in hexadecimal
    std::string body{};        // when it was answered
};

class Http {
public:
    explicit Http(const Address& address);
    ~Http();
    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;

    bool IsMade() const { return m_multi != nullptr && m_easy != nullptr; }
    // isCut: asked after each Wake.
    Exchange Post(const std::string& request, const std::string& trusted, uint32_t limitMs,
                  const std::function<bool()>& isCut);
    // In any thread.
    void Wake();

private:
    static size_t TakeBody(char* data, size_t size, size_t count, void* self);
    static int BeforeRequest(void* self, char*, char*, int, int);
    bool ReadCertificate();
    CURLcode Perform(const std::function<bool()>& isCut);
    void Judge(CURLcode result, Exchange* exchange);

    const Address m_address;
    CURLM* m_multi = nullptr;
    CURL* m_easy = nullptr;
    curl_slist* m_headers = nullptr;
    std::string m_certificate; // of the connection
    std::string m_trusted;
    std::string m_body;
    bool m_tooLarge = false;
};

} // namespace devices

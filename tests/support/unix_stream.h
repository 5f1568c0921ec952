// Raw bytes through the socket of an endpoint, and a server made of raw bytes: for what the platform's own calls would
// never send. Every wait has a deadline, after which the test fails.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

class UnixStream {
public:
    explicit UnixStream(const std::string& endpoint); // connects
    explicit UnixStream(int descriptor) : m_descriptor(descriptor) {}
    UnixStream(UnixStream&& other) noexcept;
    ~UnixStream() { Close(); }

    bool IsOpen() const { return m_descriptor >= 0; }
    bool Send(const Bytes& bytes); // false when the peer has closed
    // Exactly so many; fewer when the peer closes before.
    Bytes Receive(size_t count, int timeoutMs = 10000);
    // The next PDU: its length is read from its header. Empty when the peer closes.
    Bytes ReceivePdu(int timeoutMs = 10000);
    void EndSending();                       // the peer sees the end of the stream
    Bytes ReceiveAll(int timeoutMs = 10000); // until the peer closes
    bool PeerCloses(int timeoutMs = 10000);  // and sends nothing before
    void Close();

private:
    int m_descriptor;
};

class UnixListener {
public:
    explicit UnixListener(const std::string& endpoint);
    ~UnixListener();
    UnixStream Accept(int timeoutMs = 10000);

private:
    std::string m_path;
    int m_descriptor;
};

// Where the platform keeps the socket of an endpoint.
std::string EndpointPath(const std::string& endpoint);

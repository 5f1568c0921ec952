// Printers on the network of this machine, as ordinary processes and threads of a test.
#pragma once

#include "test_process.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

// A TCP port of the loopback address that nobody listens on.
int FreePort();

// CUPS's own IPP printer, in the private directory. A job is a script of its command: lines "STATE: +media-jam-error"
// and "ATTR: marker-levels=12,88" change the printer at once, and "wait NAME" prints on until the gate NAME is opened.
class IppPrinter {
public:
    // keys: the folder of its certificate. attributes: in place of its own, in the form of ipptool(5) files.
    explicit IppPrinter(const std::string& keys = "keys", const std::string& attributes = "");
    std::string Uri(const std::string& scheme = "ipp") const;
    // Prints a job of these lines. Returns once the printer has it.
    void Print(const std::string& lines, const std::string& title = "script");
    void Open(const std::string& gate) const;
    // What ipptool says of an attribute; empty: it has none.
    std::string Attribute(const std::string& name) const;
    TestProcess& Process() { return m_process; }
    // Another process at the same address.
    void Restart(const std::string& keys);

private:
    TestProcess Start(const std::string& keys);
    const std::string m_folder;
    const std::string m_attributes;
    const int m_port;
    TestProcess m_bus;
    TestProcess m_process;
};

// A server that answers each request on a connection as the test wants: text is sent as it is, then the connection is
// closed. Never: it is kept open and nothing is sent. Slowly: a byte at a time, for as long as the client stays.
struct FakeAnswer {
    std::string bytes{};
    int afterMs = 0;
    bool never = false;
    bool slowly = false;
    bool endless = false; // the bytes again and again
};
class FakePrinter {
public:
    FakePrinter();
    ~FakePrinter();
    std::string Uri(const std::string& scheme = "ipp") const;
    // body: of the IPP request.
    using Answerer = std::function<FakeAnswer(const std::string& body)>;
    void Answer(Answerer answerer);
    int Connections() const { return m_connections; }

private:
    void Serve();
    void ServeOne(int connection);
    const int m_port;
    int m_listener = -1;
    std::mutex m_lock;
    Answerer m_answerer;
    std::atomic<int> m_connections = 0;
    std::atomic<bool> m_over = false;
    std::thread m_thread;
};

// A connection to an MQTT broker that is made again for as long as the object lives. State: the object's; a thread of
// its own, which makes all calls of the handler.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

struct mosquitto;
struct mosquitto_message;

namespace CLI {
class App;
}

namespace views {

struct BrokerOptions {
    std::string host = "localhost";
    int port = 0; // 0: 1883, with TLS 8883
    bool tls = false;
    std::string caFile;          // implies TLS; else the system's authorities
    std::string certificateFile; // of this client
    std::string keyFile;
    std::string user;
    std::string passwordFile;
    std::string prefix;
};
void AddBrokerOptions(CLI::App& app, BrokerOptions& options);
// Throws Failure for options that do not go together, and files that cannot be used.
void CheckBrokerOptions(const BrokerOptions& options);
// "localhost:1883".
std::string NameOf(const BrokerOptions& options);

struct Outgoing {
    std::string topic;
    std::string payload;
    bool retain = true;
};

class BrokerConnection;

class BrokerHandler {
public:
    virtual ~BrokerHandler() = default;
    virtual void Connected(BrokerConnection& connection) = 0;
    // why: in words. The next attempt follows by itself.
    virtual void Disconnected(const std::string& why) = 0;
    virtual void Received(const std::string& topic, std::string_view payload, bool retained) = 0;
    // The broker has answered one Subscribe; what it retains follows.
    virtual void Subscribed() {}
    // The next message to publish; nothing when there is none. Asked again after Ready().
    virtual std::optional<Outgoing> Next() = 0;
    // The broker has it.
    virtual void Taken(const std::string& topic) = 0;
};

class BrokerConnection {
public:
    // will: published by the broker, retained, when the connection breaks; none when its topic is empty.
    BrokerConnection(const BrokerOptions& options, const std::string& clientId, const Outgoing& will,
                     BrokerHandler& handler);
    // Publishes the will itself, if it can at once, and leaves. A thread that is still trying to reach a broker after a
    // few seconds ends the process.
    ~BrokerConnection();
    BrokerConnection(const BrokerConnection&) = delete;
    BrokerConnection& operator=(const BrokerConnection&) = delete;

    // There is something to publish. Any thread.
    void Ready();

    // In calls of the handler, while there is a connection. Messages come with quality of service 0: the next
    // connection tells what was lost.
    void Subscribe(const std::string& filter);
    void Unsubscribe(const std::string& filter);

private:
    struct Callbacks;
    void Run();
    int Configure();
    int Attend();
    void Publish();
    bool Send(const Outgoing& message);
    void Pause(int milliseconds);

    const BrokerOptions m_options;
    const std::string m_clientId;
    const Outgoing m_will;
    std::string m_password;
    BrokerHandler& m_handler;
    int m_wake; // an eventfd
    std::atomic<bool> m_ending = false;
    std::atomic<bool> m_ended = false;

    // Of the thread.
    mosquitto* m_client = nullptr;
    bool m_connected = false;
    int m_refusal = 0;                        // of the broker; 0: none
    uint64_t m_received = 0;                  // packets
    std::map<int, std::string> m_outstanding; // topics by message number
    std::thread m_thread;                     // last, as it uses the others
};

} // namespace views

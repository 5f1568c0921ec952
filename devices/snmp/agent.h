// An SNMP agent (RFC 3411 to 3418), through libsnmp: one exchange at a time, all of them within a deadline. State: the
// object's session.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace devices {

using ObjectId = std::vector<uint32_t>;

// snmp://HOST[:PORT][?version=1|2c|3&community=NAME&credentials=FILE]. The file, which nobody but its owner may read,
// has lines of a word and a value: community, user, auth (SHA, SHA-256, SHA-512, MD5), authpass, priv (AES, DES),
// privpass.
struct AgentAddress {
    std::string peer{}; // "udp:host:161"
    std::string host{};
    int version = 2;
    std::string community{"public"};
    std::map<std::string, std::string> credentials{};
};
// False: *error says what is wrong.
bool ParseAgentAddress(const std::string& uri, AgentAddress* address, std::string* error);

struct AgentValue {
    bool isNumber = false;
    int64_t number = 0;
    std::string bytes{}; // of an octet string; of an object id, its text with dots
};

class Agent {
public:
    Agent() = default;
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // False: *error says why.
    bool Open(const AgentAddress& address, std::string* error);
    void Begin(std::chrono::steady_clock::time_point deadline, const std::function<bool()>& isCut);

    // What the agent has of these objects. False: no answer in time, or the agent refuses us.
    bool Get(const std::vector<ObjectId>& objects, std::map<ObjectId, AgentValue>* values);
    // The objects below a column, by what follows it. False: as above.
    bool Walk(const ObjectId& column, std::map<ObjectId, AgentValue>* rows);

    const std::string& Trouble() const { return m_trouble; }
    bool IsRefused() const { return m_refused; }

private:
    struct Response;
    Response Send(void* request);

    void* m_session = nullptr;
    AgentAddress m_address{};
    std::chrono::steady_clock::time_point m_deadline{};
    std::function<bool()> m_isCut{};
    std::string m_trouble{};
    bool m_refused = false;
};

} // namespace devices

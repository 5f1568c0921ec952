// What a broker is to have: the last document of each topic. A topic that is written again before it was sent has only
// its last document sent, so a slow broker costs no memory. State: the object's; a lock guards it.
#pragma once

#include "mqtt/connection.h"

#include <deque>
#include <functional>
#include <map>
#include <mutex>

namespace views {

class Outbox {
public:
    // True: it is another document than before, and will be sent.
    bool Put(const std::string& topic, std::string document);
    // The broker forgets the topic, and then this does.
    void Clear(const std::string& topic);
    // The same for all topics for which it holds.
    void ClearIf(const std::function<bool(const std::string&)>& holds);
    // For one that the broker has from before. False: it is one of ours.
    bool ClearUnknown(const std::string& topic);
    // Sent once, and not kept.
    void Tell(const std::string& topic, std::string document);
    // Sends everything again.
    void SendAll();

    std::optional<Outgoing> Next();
    void Taken(const std::string& topic);

private:
    struct Entry {
        std::string document; // empty: to be cleared
        bool waits = false;   // is in the queue
    };
    void Queue(const std::string& topic, Entry& entry);

    std::mutex m_lock;
    std::map<std::string, Entry> m_entries;
    std::deque<std::string> m_queue; // topics, the one that waits longest first
    std::deque<Outgoing> m_told;
};

} // namespace views

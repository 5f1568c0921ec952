// State: the object's.
#include "mqtt/outbox.h"

namespace views {

namespace {

constexpr size_t kToldMax = 1000; // answers that nobody takes

}

void Outbox::Queue(const std::string& topic, Entry& entry) {
    if (!entry.waits) m_queue.push_back(topic);
    entry.waits = true;
}

bool Outbox::Put(const std::string& topic, std::string document) {
    const std::lock_guard hold(m_lock);
    const auto [place, isNew] = m_entries.try_emplace(topic);
    if (!isNew && place->second.document == document) return false;
    place->second.document = std::move(document);
    Queue(topic, place->second);
    return true;
}

void Outbox::Clear(const std::string& topic) {
    const std::lock_guard hold(m_lock);
    const auto found = m_entries.find(topic);
    if (found == m_entries.end()) return;
    found->second.document.clear();
    Queue(topic, found->second);
}

void Outbox::ClearIf(const std::function<bool(const std::string&)>& holds) {
    const std::lock_guard hold(m_lock);
    for (auto& [topic, entry] : m_entries)
        if (holds(topic)) {
            entry.document.clear();
            Queue(topic, entry);
        }
}

bool Outbox::ClearUnknown(const std::string& topic) {
    const std::lock_guard hold(m_lock);
    const auto [place, isNew] = m_entries.try_emplace(topic);
    if (isNew) Queue(topic, place->second);
    return isNew;
}

void Outbox::Tell(const std::string& topic, std::string document) {
    const std::lock_guard hold(m_lock);
    if (m_told.size() < kToldMax) m_told.push_back({.topic = topic, .payload = std::move(document), .retain = false});
}

void Outbox::SendAll() {
    const std::lock_guard hold(m_lock);
    for (auto& [topic, entry] : m_entries)
        Queue(topic, entry);
}

std::optional<Outgoing> Outbox::Next() {
    const std::lock_guard hold(m_lock);
    if (!m_told.empty()) {
        Outgoing told = std::move(m_told.front());
        m_told.pop_front();
        return told;
    }
    while (!m_queue.empty()) {
        const std::string topic = std::move(m_queue.front());
        m_queue.pop_front();
        const auto found = m_entries.find(topic);
        if (found == m_entries.end()) continue;
        found->second.waits = false;
        return Outgoing{.topic = topic, .payload = found->second.document};
    }
    return std::nullopt;
}

void Outbox::Taken(const std::string& topic) {
    const std::lock_guard hold(m_lock);
    const auto found = m_entries.find(topic);
    if (found != m_entries.end() && found->second.document.empty() && !found->second.waits) m_entries.erase(found);
}

} // namespace views

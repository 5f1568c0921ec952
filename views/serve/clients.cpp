// Connections and readers. State: the objects'.
#include "serve/clients.h"

#include <algorithm>
#include <cstring>
#include <sys/socket.h>
#include <utility>

namespace views {

namespace {

const auto kBeat = std::make_shared<const std::string>("event: beat\ndata: {}\n\n");

} // namespace

// ---- connections

Connection* Connections::Add(int socket) {
    const std::lock_guard hold(m_lock);
    m_all.push_back({.socket = socket, .since = ServerClock::now()});
    if (m_all.size() - m_readers > kOrdinaryMost) {
        const auto oldest = std::find_if(m_all.begin(), m_all.end(),
                                         [](const Connection& each) { return !each.reads && each.socket >= 0; });
        Shut(*oldest);
    }
    return &m_all.back();
}

void Connections::Remove(Connection* connection) {
    const std::lock_guard hold(m_lock);
    m_readers -= connection->reads;
    m_all.remove_if([&](const Connection& each) { return &each == connection; });
}

void Connections::Renew(Connection* connection) {
    const std::lock_guard hold(m_lock);
    connection->since = ServerClock::now();
    m_readers -= connection->reads;
    connection->reads = false;
    const auto place =
        std::find_if(m_all.begin(), m_all.end(), [&](const Connection& each) { return &each == connection; });
    m_all.splice(m_all.end(), m_all, place);
}

bool Connections::BeginReading(Connection* connection) {
    const std::lock_guard hold(m_lock);
    if (m_readers == kReadersMost) return false;
    ++m_readers;
    connection->reads = true;
    return true;
}

void Connections::ShutLate() {
    const std::lock_guard hold(m_lock);
    const ServerClock::time_point late = ServerClock::now() - kRequest;
    for (Connection& each : m_all)
        if (!each.reads && each.since < late) Shut(each);
}

Connections::Counts Connections::Count() const {
    const std::lock_guard hold(m_lock);
    return {m_all.size(), m_readers};
}

// The library notices, and closes it.
void Connections::Shut(Connection& connection) {
    if (connection.socket >= 0) shutdown(std::exchange(connection.socket, -1), SHUT_RDWR);
}

// ---- readers of events

void Readers::Add(Reader* reader) {
    const std::lock_guard hold(m_lock);
    m_all.push_back(reader);
}

void Readers::Remove(Reader* reader) {
    const std::lock_guard hold(m_lock);
    std::erase(m_all, reader);
    delete reader;
}

ssize_t Readers::Fill(Reader& reader, char* piece, size_t room) {
    const std::lock_guard hold(m_lock);
    if (m_closing) return MHD_CONTENT_READER_END_OF_STREAM;
    const ServerClock::time_point now = ServerClock::now();
    if (!reader.message && now - reader.lastMessage >= kPace) {
        reader.message = m_board.Next(reader.place);
        if (!reader.message && now - reader.lastMessage >= kBeatEvery) reader.message = kBeat;
        if (reader.message) reader.lastMessage = now;
    }
    if (!reader.message) {
        reader.suspended = true;
        MHD_suspend_connection(reader.connection);
        return 0;
    }
    const size_t size = std::min(room, reader.message->size() - reader.sent);
    std::memcpy(piece, reader.message->data() + reader.sent, size);
    reader.sent += size;
    if (reader.sent == reader.message->size()) {
        reader.message = nullptr;
        reader.sent = 0;
    }
    return static_cast<ssize_t>(size);
}

void Readers::Resume(bool close) {
    std::vector<MHD_Connection*> ready;
    {
        const std::lock_guard hold(m_lock);
        m_closing |= close;
        m_waiting = false;
        const ServerClock::time_point now = ServerClock::now();
        for (Reader* reader : m_all) {
            if (!reader->suspended) continue;
            const bool more = m_board.HasMore(reader->place);
            const auto quiet = now - reader->lastMessage;
            if (close || (more && quiet >= kPace) || quiet >= kBeatEvery) {
                reader->suspended = false;
                ready.push_back(reader->connection);
            } else {
                m_waiting |= more;
            }
        }
    }
    // A suspended connection stays until it is resumed.
    for (MHD_Connection* connection : ready)
        MHD_resume_connection(connection);
}

bool Readers::Waiting() const {
    const std::lock_guard hold(m_lock);
    return m_waiting;
}

} // namespace views

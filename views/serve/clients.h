// Who is connected: all connections, and among them the readers of events. State: the objects'. The thread of the HTTP
// library and the one that ticks the server use both; each has a lock. No call into the library is made with the lock
// of the connections held.
#pragma once

#include "serve/board.h"

#include <chrono>
#include <list>
#include <microhttpd.h>

namespace views {

using ServerClock = std::chrono::steady_clock;

inline constexpr size_t kOrdinaryMost = 400;
inline constexpr size_t kReadersMost = 250;
inline constexpr std::chrono::seconds kRequest{30};           // for a request and its answer
inline constexpr std::chrono::milliseconds kPace{100};        // between two messages to a reader
inline constexpr std::chrono::milliseconds kBeatEvery{10000}; // to a reader that has nothing to read; finds who is gone

struct Connection {
    int socket = -1;
    ServerClock::time_point since{}; // of the present request, or of the wait for it
    bool reads = false;              // events
};

class Connections {
public:
    // Closes the oldest that reads no events when there are too many.
    Connection* Add(int socket);
    void Remove(Connection* connection);
    // The connection waits for its next request.
    void Renew(Connection* connection);
    // False: there are too many readers.
    bool BeginReading(Connection* connection);
    // Closes those whose request takes too long.
    void ShutLate();

    struct Counts {
        size_t all, readers;
    };
    Counts Count() const;

private:
    static void Shut(Connection& connection);

    mutable std::mutex m_lock;
    std::list<Connection> m_all; // the oldest first
    size_t m_readers = 0;
};

struct Reader {
    MHD_Connection* connection;
    Board::Place place;
    std::shared_ptr<const std::string> message{}; // being sent; null: none
    size_t sent = 0;                              // of it
    ServerClock::time_point lastMessage{};
    bool suspended = false;
};

class Readers {
public:
    explicit Readers(Board& board) : m_board(board) {}

    void Add(Reader* reader);
    void Remove(Reader* reader); // and deletes it
    // Fills a piece of what a reader reads, or suspends it until there is something. What a callback of the library
    // returns.
    ssize_t Fill(Reader& reader, char* piece, size_t room);
    // Lets those read on for whom there is something. close: all, to their end.
    void Resume(bool close);
    // Whether one has to be told something soon.
    bool Waiting() const;

private:
    Board& m_board;
    mutable std::mutex m_lock;
    std::vector<Reader*> m_all;
    bool m_closing = false;
    bool m_waiting = false;
};

} // namespace views

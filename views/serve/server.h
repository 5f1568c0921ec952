// The HTTP server: one thread of the HTTP library serves all connections. It only reads the board. State: the object's.
//
//   GET /                      the page; /page.css, /page.js
//   GET /api/printers          summaries of all printers
//   GET /api/printers/NAME     one printer with all values; ?machine= where several have a printer of that name
//   GET /api/timeline          the states of the last day; ?printer= ?machine= ?since=
//   GET /events                text/event-stream, see below
//   GET /metrics               for Prometheus
//
// Events: hello (what follows is everything), printer (a summary that is new), removed, machines, change (of a
// variable; the latest ones), ready (that was everything). The id of the last event says how far a reader is; one that
// comes back with it (Last-Event-ID) is told what it missed, or everything.
//
// Bounds. There are at most kConnectionsMost connections. When more than kOrdinaryMost are open that read no events,
// the oldest of them is closed, so those who hold connections open keep nobody out. A request must be complete, and
// its answer taken, within kRequestMs. There are at most kReadersMost readers of events.
#pragma once

#include "serve/access.h"
#include "serve/board.h"

namespace views {

struct ServerOptions {
    ListenAddress listen;
    std::string token; // empty: none is needed
};

class Server {
public:
    // Throws Failure. The board must outlive it.
    Server(const ServerOptions& options, Board& board);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    uint16_t Port() const;
    // Sends readers what they can take now, and closes connections whose time is up. Called when the board has
    // changed, and as often as TickDue says.
    void Tick();
    // How long Tick can wait when nothing changes.
    std::chrono::milliseconds TickDue() const;

    struct State;

private:
    std::unique_ptr<State> m_state;
};

} // namespace views

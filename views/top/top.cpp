// The live view: its loop, and the snapshot where there is none. State: a View, for as long as RunTop runs.
//
// The source's wait is the only one. A thread of its own watches the keyboard, and wakes the source for a key.
#include "top/top.h"

#include "top/snapshot.h"
#include "top/view.h"

#include "base/output.h"
#include "base/product.h"
#include "model/program.h"

#include <algorithm>
#include <poll.h>
#include <semaphore>
#include <unistd.h>

namespace views {

namespace {

using namespace std::chrono_literals;

constexpr auto kClock = 250ms;  // between two drawings when nothing happens; a new size of the terminal is seen then
constexpr auto kFirstLook = 3s; // for printers, before a snapshot says that there are none

// Wakes the source when there are keys, once until they are taken.
class Keyboard {
public:
    explicit Keyboard(Source& source) : m_source(source) {
        if (pipe(m_end) != 0) throw Failure{Exit::False, "cannot watch the keyboard", "out of descriptors", ""};
        m_thread = std::thread([this] { Watch(); });
    }
    ~Keyboard() {
        close(m_end[1]);
        m_taken.release();
        m_thread.join();
        close(m_end[0]);
    }
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;

    // Whether there were keys, or the terminal is gone.
    bool Ready() { return m_ready.exchange(false); }
    bool Gone() const { return m_gone; }
    void Taken() { m_taken.release(); }

private:
    void Watch() {
        for (;;) {
            // Without a bound: it is the user who ends it, or the destructor.
            pollfd either[] = {{STDIN_FILENO, POLLIN, 0}, {m_end[0], POLLIN, 0}};
            if (poll(either, 2, -1) < 0) continue; // a signal
            if (either[1].revents != 0) return;
            m_gone = (either[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
            m_ready = true;
            m_source.Wake();
            if (m_gone) return;
            m_taken.acquire();
        }
    }

    Source& m_source;
    int m_end[2] = {-1, -1};
    std::atomic<bool> m_ready = false, m_gone = false;
    std::counting_semaphore<> m_taken{0};
    std::thread m_thread;
};

void Follow(View& view) {
    const EndOnInterrupt end(view.source);
    Screen screen;
    Keyboard keyboard(view.source);
    while (!view.done && !end.Asked() && !keyboard.Gone()) {
        Draw(screen, view);
        TakeChanges(view, view.source.Wait(kClock));
        const bool hadKeys = keyboard.Ready();
        while (const std::optional<Screen::Key> key = screen.NextKey())
            OnKey(view, *key, std::max(screen.Height() / 2, 1));
        if (hadKeys) keyboard.Taken();
    }
}

// Until there are printers, or it is clear that there are none.
void GatherPrinters(View& view) {
    const auto begun = std::chrono::steady_clock::now();
    do {
        TakeChanges(view, view.source.Wait(100ms));
        if (!view.source.Now().empty()) return;
        if (!view.notConnected.empty())
            throw Failure{Exit::NoService, "cannot show the printers of " + *view.notConnected.begin(),
                          "the status database service does not run", HowToStart()};
    } while (std::chrono::steady_clock::now() - begun < kFirstLook);
}

} // namespace

Exit RunTop(Source& source, const TopOptions& options) {
    View view{.source = source};
    view.rows.SetFilter(options.filter);
    view.rows.Update(source.Now(), {});
    const bool once = options.once || g_output.json;
    const std::string why = once ? "" : WhyNoScreen();
    if (!once && why.empty()) {
        Follow(view);
        return Exit::Done;
    }
    if (!once && g_output.terminal) PrintError({Exit::Done, "showing the printers once", why, ""});
    GatherPrinters(view);
    PrintSnapshot(view.rows);
    return Exit::Done;
}

} // namespace views

// What the programs of the views have in common: the frame of main(), and the wish to end. `oriel NAME` runs the
// program oriel-NAME, whose help texts and errors say "oriel NAME".
#pragma once

#include "base/command_line.h"
#include "model/source.h"

#include <windows.h>

#include <atomic>
#include <functional>
#include <thread>

namespace CLI {
class App;
}

namespace views {

struct Program {
    const char* name;    // "log"
    const char* purpose; // the first line of its help
    bool stream = false; // with --json: prints a line for each event, failures too
};

// The body of main(). addOptions adds options to those that all have (--json, --scope, --help, --version); run follows
// the parse. Exit codes and the form of errors are those of `oriel`.
int RunProgram(int argc, char** argv, const Program& program, const std::function<void(CLI::App&)>& addOptions,
               const std::function<Exit()>& run);

// While it lives, Ctrl-C, SIGTERM and SIGHUP do not end the process but the waits of the source; so do the event and
// the end of the process that `oriel up` names with --stop-event and --owner. One per process.
class EndOnInterrupt {
public:
    explicit EndOnInterrupt(Source& source);
    ~EndOnInterrupt();
    EndOnInterrupt(const EndOnInterrupt&) = delete;
    EndOnInterrupt& operator=(const EndOnInterrupt&) = delete;

    bool Asked() const { return m_asked; }

private:
    HANDLE m_interrupted;
    std::atomic<bool> m_asked = false;
    std::thread m_thread;
};

} // namespace views

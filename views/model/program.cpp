// State: whose end is this program's end, from the command line.
#include "model/program.h"

#include "base/handles.h"
#include "base/interrupt.h"
#include "base/layer.h"
#include "base/output.h"

#include <CLI/CLI.hpp>

#include <string>

namespace views {

namespace {

constexpr DWORD kLastWordsMs = 5000;

struct Supervisor {
    DWORD owner = 0; // 0: none
    std::string stopEvent;
};
Supervisor g_supervisor;

} // namespace

int RunProgram(int argc, char** argv, const Program& program, const std::function<void(CLI::App&)>& addOptions,
               const std::function<Exit()>& run) {
    return RunAndReport(argc, argv, [&] {
        g_output.stream = program.stream;
        KeepRunningOnClosedPipes();
        const std::string name = std::string("oriel ") + program.name;
        CommonOptions common;
        CLI::App app{program.purpose, name};
        app.set_version_flag("--version", ORIEL_VERSION);
        addOptions(app);
        app.add_option("--owner", g_supervisor.owner)->group(""); // only for 'oriel up'
        app.add_option("--stop-event", g_supervisor.stopEvent)->group("");
        AddCommonOptions(app, common);
        app.footer(kExitCodes);
        return Parse(app, argc, argv, common, [&] { return name; }) ? run() : Exit::Done;
    });
}

EndOnInterrupt::EndOnInterrupt(Source& source) : m_interrupted(TakeOverInterrupts(kLastWordsMs)) {
    m_thread = std::thread([this, &source] {
        const Supervisor& supervisor = g_supervisor;
        const KernelHandle owner(supervisor.owner ? OpenProcess(SYNCHRONIZE, FALSE, supervisor.owner) : nullptr);
        const KernelHandle stop(
            supervisor.stopEvent.empty() ? nullptr : OpenEventA(SYNCHRONIZE, FALSE, supervisor.stopEvent.c_str()));
        HANDLE ends[3] = {m_interrupted};
        DWORD count = 1;
        for (const KernelHandle* each : {&owner, &stop})
            if (*each) ends[count++] = each->Get();
        // An owner that has ended cannot be opened.
        if (supervisor.owner == 0 || owner)
            WaitForMultipleObjects(count, ends, FALSE, INFINITE); // until the user or the destructor ends it
        m_asked = true;
        source.Wake();
    });
}

EndOnInterrupt::~EndOnInterrupt() {
    SetEvent(m_interrupted);
    m_thread.join();
}

} // namespace views

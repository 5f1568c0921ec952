// No state.
#include "model/program.h"

#include "base/interrupt.h"
#include "base/layer.h"
#include "base/output.h"

#include <CLI/CLI.hpp>

#include <string>

namespace views {

namespace {

constexpr DWORD kLastWordsMs = 5000;

}

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
        AddCommonOptions(app, common);
        app.footer(kExitCodes);
        return Parse(app, argc, argv, common, [&] { return name; }) ? run() : Exit::Done;
    });
}

EndOnInterrupt::EndOnInterrupt(Source& source) : m_interrupted(TakeOverInterrupts(kLastWordsMs)) {
    m_thread = std::thread([this, &source] {
        WaitForSingleObject(m_interrupted, INFINITE); // until the user or the destructor ends it
        m_asked = true;
        source.Wake();
    });
}

EndOnInterrupt::~EndOnInterrupt() {
    SetEvent(m_interrupted);
    m_thread.join();
}

} // namespace views

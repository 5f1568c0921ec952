// Processes of the views. State: the object's.
#include "commands/view_programs.h"

#include "base/child_program.h"
#include "base/failure.h"
#include "base/output.h"
#include "base/settings.h"
#include "commands/printer_sides.h"
#include "commands/views.h"

#include <algorithm>

namespace {

constexpr DWORD kSettingMs = 2000; // between looks at the setting
constexpr DWORD kStopMs = 5000;    // for those that were asked to end

} // namespace

ViewPrograms::~ViewPrograms() {
    for (Running& view : m_views)
        AskToEnd(view);
    const DWORD start = GetTickCount();
    for (Running& view : m_views) {
        if (!view.process) continue;
        const DWORD waited = std::min(GetTickCount() - start, kStopMs);
        if (WaitForSingleObject(view.process.Get(), kStopMs - waited) == WAIT_OBJECT_0) continue;
        TerminateProcess(view.process.Get(), 1);
    }
}

void ViewPrograms::AskToEnd(Running& view) {
    if (view.leaving || !view.process) return;
    view.leaving = true;
    view.dueAt = GetTickCount() + kStopMs;
    SetEvent(view.stop.Get());
}

void ViewPrograms::ReadSetting() {
    if (m_settingRead && !HasPassed(m_settingReadAt + kSettingMs)) return;
    m_settingRead = true;
    m_settingReadAt = GetTickCount();
    const std::vector<std::string> commands = ReadListSetting(settings::kViews);
    const auto isWanted = [&](const Running& view) {
        return std::find(commands.begin(), commands.end(), view.command) != commands.end();
    };
    for (Running& view : m_views)
        if (!isWanted(view)) AskToEnd(view);
    std::erase_if(m_views, [&](const Running& view) { return !view.process && (view.leaving || !isWanted(view)); });
    for (const std::string& command : commands) {
        const auto isOf = [&](const Running& view) { return view.command == command; };
        if (std::none_of(m_views.begin(), m_views.end(), isOf))
            m_views.push_back({.command = command, .dueAt = GetTickCount()});
    }
}

void ViewPrograms::Start(Running& view) {
    const std::string what = "cannot start the view \"" + ToUtf8(view.command) + "\"";
    const size_t blank = view.command.find(' ');
    const View* known = FindView(view.command.substr(0, blank));
    view.restart.Began();
    std::string stop;
    view.stop = NewStopEvent("View", stop);
    if (known != nullptr && view.stop) {
        const std::string program = ProgramOf(*known);
        view.process = StartProgram(program, Quoted(program) + " --owner " + std::to_string(GetCurrentProcessId()) +
                                                 " --stop-event " + Quoted(stop) +
                                                 (blank == std::string::npos ? "" : view.command.substr(blank)));
    }
    if (view.process) {
        m_tell({.command = view.command, .started = true});
        return;
    }
    const DWORD error = known != nullptr ? GetLastError() : ERROR_FILE_NOT_FOUND;
    view.dueAt = GetTickCount() + view.restart.AfterEnd();
    LogFailure(SystemFailure(error, what));
}

void ViewPrograms::NoteEnd(Running& view) {
    DWORD code = 0;
    GetExitCodeProcess(view.process.Get(), &code);
    view.process.Reset();
    view.stop.Reset();
    const DWORD pause = view.leaving ? 0 : view.restart.AfterEnd();
    view.dueAt = GetTickCount() + pause;
    m_tell({.command = view.command, .code = code, .pauseMs = pause});
}

void ViewPrograms::Tend() {
    for (Running& view : m_views) {
        if (!view.process) continue;
        if (WaitForSingleObject(view.process.Get(), 0) == WAIT_OBJECT_0) {
            NoteEnd(view);
            if (view.leaving) m_settingRead = false; // it may be wanted again
        } else if (view.leaving && HasPassed(view.dueAt)) {
            TerminateProcess(view.process.Get(), 1);
        }
    }
    ReadSetting();
    for (Running& view : m_views)
        if (!view.process && HasPassed(view.dueAt)) Start(view);
}

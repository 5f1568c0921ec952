// The views that `oriel up` runs: a process for each command line of the setting "Views". State: the object's.
#pragma once

#include "base/handles.h"
#include "commands/restart_pause.h"

#include <functional>
#include <string>
#include <vector>

// A view was started, or it ended.
struct ViewNews {
    std::string command; // ANSI
    bool started = false;
    DWORD code = 0;    // its exit code
    DWORD pauseMs = 0; // until it is started again; 0: it is not started again
};
using TellViewNews = std::function<void(const ViewNews& news)>;

class ViewPrograms {
public:
    explicit ViewPrograms(TellViewNews tell) : m_tell(std::move(tell)) {}
    // Ends those that still run; kills one that takes too long.
    ~ViewPrograms();
    ViewPrograms(const ViewPrograms&) = delete;
    ViewPrograms& operator=(const ViewPrograms&) = delete;

    // Checks setting and processes, and starts or ends what is due. Called regularly.
    void Tend();

private:
    struct Running {
        std::string command;
        KernelHandle process{};
        KernelHandle stop{};  // event: asks the process to end
        bool leaving = false; // it is no longer in the setting
        DWORD dueAt = 0;      // tick count of the next start, or of the kill of one that is leaving
        RestartPause restart{};
    };

    void ReadSetting();
    void Start(Running& view);
    void AskToEnd(Running& view);
    void NoteEnd(Running& view);

    TellViewNews m_tell;
    std::vector<Running> m_views;
    DWORD m_settingReadAt = 0;
    bool m_settingRead = false;
};

// The printer sides that `oriel up` runs: one process for all printers on the network, one for each other printer that
// has a device. When the first of them has crashed twice within a minute, each printer gets a process of its own, so
// that one printer whose answers crash it does not keep the others down. State: the object's.
#pragma once

#include "base/handles.h"
#include "base/printer_side_states.h"
#include "commands/printer_host.h"
#include "commands/restart_pause.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

// Whether the tick count has come.
inline bool HasPassed(DWORD due) {
    return static_cast<LONG>(GetTickCount() - due) >= 0;
}
// A new event for this user alone, which asks a program to end. A process that knows its name can wait for it. what: of
// the name. None when it cannot be created.
KernelHandle NewStopEvent(const char* what, std::string& name);
// A new named object: made by `make`, with a name that begins like this and that nobody has yet.
KernelHandle NewObject(const std::string& begin, std::string& name,
                       const std::function<HANDLE(const char* name)>& make);

// A printer side was started, or it ended.
struct PrinterSideNews {
    std::string printer; // ANSI
    bool started = false;
    DWORD code = 0;    // its exit code; 0: it was asked to end
    DWORD pauseMs = 0; // until it is started again; 0: it is not started again
};
using TellPrinterSideNews = std::function<void(const PrinterSideNews& news)>;

class PrinterSides {
public:
    explicit PrinterSides(TellPrinterSideNews tell);
    // Ends those that still run; kills one that takes too long.
    ~PrinterSides();
    PrinterSides(const PrinterSides&) = delete;
    PrinterSides& operator=(const PrinterSides&) = delete;

    // At its first open the printer gets this access control list (SDDL) unless it has one.
    void GiveAccessList(const std::string& printer, const std::string& list) { m_accessLists.emplace(printer, list); }
    // Checks printers and processes, and starts or ends what is due. Called regularly while the service runs.
    void Tend();
    // Opens each printer that has a driver once, which creates its database; most client kinds open only such printers.
    // Asks the print server, so it is not called often.
    void OpenPrinters();
    // The service was restarted and has no databases.
    void ServiceIsNew();

private:
    struct Side {
        std::string printer;
        std::string port;
        std::string device;
        KernelHandle process{};
        KernelHandle stop{};        // event: asks the process to end
        std::optional<DWORD> row{}; // of the host, which serves it
        bool leaving = false;       // it was asked to end: its printer has another device or none
        DWORD dueAt = 0;            // tick count of the next start, or of the kill of one that is leaving
        bool resting = false;       // until its printer is opened
        KernelHandle opened{};      // event: the printer was opened since then; none when the event cannot be created
        RestartPause restart{};

        bool Runs() const { return process || row; }
    };

    bool SettingsAreDue();
    void ReadSettings();
    void StartSide(Side& side);
    bool StartHosted(Side& side);
    bool StartProcess(Side& side);
    void AskToEnd(Side& side);
    void TendHost();
    std::optional<DWORD> TakeEnd(Side& side);
    void NoteEnd(Side& side, DWORD code);
    void OpenOnce(const std::string& printer);
    void Publish(const Side& side, const PrinterSideState& state);

    TellPrinterSideNews m_tell;
    std::vector<Side> m_sides;
    std::vector<std::string> m_opened; // printers whose database exists
    std::map<std::string, std::string> m_accessLists{};
    DWORD m_settingsReadAt = 0;
    DWORD m_settingsCostMs = 0; // that the last check took
    bool m_settingsRead = false;
    KernelHandle m_changed{}; // event, for this user alone: the printers have changed; none when another has the name
    bool m_toldOfChange = false;
    PrinterHost m_host{};
    bool m_apart = false;   // the host has crashed too often
    bool m_crashed = false; // the host, at
    DWORD m_crashedAt = 0;
};

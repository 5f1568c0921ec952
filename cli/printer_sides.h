// The printer sides that `oriel up` looks after: a process for each printer that has a script.
#pragma once

#include "handles.h"
#include "printer_side_states.h"
#include "restart_pause.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

// A printer's side was started, or it ended.
struct PrinterSideNews {
    std::string printer; // ANSI
    bool started = false;
    DWORD code = 0;    // with which it ended: 0, as it was asked to
    DWORD pauseMs = 0; // until it is started again; 0: it is not
};
using TellPrinterSideNews = std::function<void(const PrinterSideNews& news)>;

class PrinterSides {
public:
    explicit PrinterSides(TellPrinterSideNews tell);
    // Ends those that still run.
    ~PrinterSides();
    PrinterSides(const PrinterSides&) = delete;
    PrinterSides& operator=(const PrinterSides&) = delete;

    // The printer gets this access control list, a text, at its first open unless it has one.
    void GiveAccessList(const std::string& printer, const std::string& list) { m_accessLists.emplace(printer, list); }
    // Looks at printers and processes, starts and ends what is due. To be called now and then while the service runs.
    void Tend();
    // Opens each printer that has a driver once, so that its database is there: most client kinds open no other. Asks the
    // print server, so not again and again.
    void OpenPrinters();
    // The service is another one: it has no databases.
    void ServiceIsNew() { m_opened.clear(); }

private:
    struct Side {
        std::string printer;
        std::string port;
        std::string script;
        KernelHandle process{};
        KernelHandle stop{};   // event: the process shall end
        bool leaving = false;  // it was told so, since its printer has no such side any more
        DWORD dueAt = 0;       // tick count: of the next start, or of the end by force of one that leaves
        bool resting = false;  // until its printer is opened
        KernelHandle opened{}; // event: it was, since then. None: it could not be had
        RestartPause restart{};
    };

    void ReadSettings();
    void StartSide(Side& side);
    void AskToEnd(Side& side);
    void NoteEnd(Side& side);
    void OpenOnce(const std::string& printer);
    void Publish(const Side& side, const PrinterSideState& state);

    TellPrinterSideNews m_tell;
    std::vector<Side> m_sides;
    std::vector<std::string> m_opened; // printers whose database is there
    std::map<std::string, std::string> m_accessLists{};
    DWORD m_settingsReadAt = 0;
    bool m_settingsRead = false;
};

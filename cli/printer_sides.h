// The printer sides that `oriel up` looks after: a process for each printer that has a script.
#pragma once

#include "handles.h"
#include "restart_pause.h"

#include <functional>
#include <string>
#include <vector>

// What happened, and to which printer: "printer-side-started"; "printer-side-ended" with the exit code and the pause
// before it is started again.
struct PrinterSideNews {
    const char* event;
    std::string printer; // ANSI
    DWORD code = 0;
    DWORD pauseMs = 0;
};
using TellPrinterSideNews = std::function<void(const PrinterSideNews& news)>;

class PrinterSides {
public:
    // Throws Failure.
    explicit PrinterSides(TellPrinterSideNews tell);
    // Ends those that still run.
    ~PrinterSides();
    PrinterSides(const PrinterSides&) = delete;
    PrinterSides& operator=(const PrinterSides&) = delete;

    // Looks at printers and processes, starts and ends what is due. To be called now and then while the service runs.
    void Tend();
    // The service is another one: it has no databases.
    void ServiceIsNew() { m_opened.clear(); }

private:
    struct Side {
        std::string printer;
        std::string port;
        std::string script;
        KernelHandle process{};
        DWORD dueAt = 0; // tick count
        RestartPause restart{};
    };

    void ReadSettings();
    void StartSide(Side& side);
    void NoteEnd(Side& side);
    void OpenOnce(const Side& side);

    TellPrinterSideNews m_tell;
    KernelHandle m_stop; // all of them end when it is set
    std::vector<Side> m_sides;
    std::vector<std::string> m_opened; // printers whose database is there
    DWORD m_settingsReadAt = 0;
    bool m_settingsRead = false;
};

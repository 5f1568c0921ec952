// status: what is installed and what runs.
#include "commands.h"

#include "layer.h"
#include "output.h"
#include "product.h"
#include "text.h"

#include <optional>

namespace {

std::string YesNo(bool yes) {
    return yes ? Styled("yes", Style::Good) : Styled("no", Style::Bad);
}

} // namespace

Exit StatusCommand() {
    const std::optional<std::string> directory = InstalledDirectory();
    const bool program = directory && FileExists(*directory + kServiceProgram);
    const DWORD state = ServiceState();
    const bool running = state == SERVICE_RUNNING;
    const bool initialised = ProductInitialised();
    const bool fine = program && running;
    if (g_output.json) {
        PrintJson({{"version", ORIEL_VERSION},
                   {"installed", program},
                   {"directory", directory ? Json(ToUtf8(*directory)) : Json(nullptr)},
                   {"service", ServiceStateName(state)},
                   {"initialised", initialised},
                   {"stateDirectory", StateDirectoryName()},
                   {"runDirectory", RunDirectoryName()},
                   {"windowsVersion", SystemVersion()},
                   {"codePage", GetACP()}});
        return fine ? Exit::Done : Exit::NoService;
    }

    std::string where = "not registered; 'oriel up' does it";
    if (directory) {
        where = Printable(ToUtf8(*directory));
        if (!program) where += std::string(", which does not hold ") + kServiceProgram;
    }
    Table table;
    table.rows = {
        {"version", ORIEL_VERSION},
        {"installed", YesNo(program) + " (" + where + ")"},
        {"service",
         std::string(kServiceName) + " " + Styled(ServiceStateName(state), running ? Style::Good : Style::Bad)},
        {"initialised", YesNo(initialised)},
        {"state directory", Printable(StateDirectoryName())},
        {"run directory", Printable(RunDirectoryName())},
        {"system version", SystemVersion()},
        {"code page", std::to_string(GetACP())},
    };
    table.Print(false);
    return fine ? Exit::Done : Exit::NoService;
}

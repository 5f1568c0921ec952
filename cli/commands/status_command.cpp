// status: what is installed and what runs. No state.
#include "commands/commands.h"

#include "base/layer.h"
#include "base/output.h"
#include "base/printer_side_states.h"
#include "base/product.h"
#include "base/text.h"

#include <optional>

#include <algorithm>
#include <iterator>

namespace {

struct ScopeText {
    const char* name;
    const char* text;
};
constexpr ScopeText kScopes[] = {
    {"system", "system (shared by all users; --scope user: your own)"},
    {"user", "user (your own; --scope system: the one shared by all users)"},
    {"environment", "ORIEL_STATE_DIR and ORIEL_RUNTIME_DIR"},
};

std::string YesNo(bool yes) {
    return yes ? Styled("yes", Style::Good) : Styled("no", Style::Bad);
}

std::string DirectoryText(const std::string& path) {
    if (path.empty()) return "none that is safe to use";
    return Printable(path);
}

} // namespace

Exit StatusCommand() {
    const std::optional<std::string> directory = InstalledDirectory();
    const bool program = directory && FileExists((*directory + kServiceProgram).c_str());
    const DWORD state = ServiceState();
    const bool running = state == SERVICE_RUNNING;
    const bool initialised = ProductInitialised();
    const bool fine = program && running;
    const std::string scope = ScopeName();
    const std::vector<PrinterSideState> sides = ReadPrinterSideStates();
    if (g_output.json) {
        Json sideList = Json::array();
        for (const PrinterSideState& side : sides) {
            Json json = {{"printer", ToUtf8(side.printer)}};
            json.update(SideJson(side));
            sideList.push_back(std::move(json));
        }
        PrintJson({{"version", ORIEL_VERSION},
                   {"installed", program},
                   {"directory", directory ? Json(ShownPath(ToUtf8(*directory))) : Json(nullptr)},
                   {"service", ServiceStateName(state)},
                   {"initialised", initialised},
                   {"printerSides", sideList},
                   {"scope", scope.empty() ? Json(nullptr) : Json(scope)},
                   {"stateDirectory", StateDirectoryName()},
                   {"runDirectory", RunDirectoryName()},
                   {"windowsVersion", SystemVersion()},
                   {"codePage", GetACP()}});
        return fine ? Exit::Done : Exit::NoService;
    }

    std::string where = "'oriel up' registers it";
    if (directory) {
        where = Printable(ShownPath(ToUtf8(*directory)));
        if (!program) where += std::string(", which has no ") + kServiceProgram;
    }
    Table table;
    table.rows = {
        {"version", ORIEL_VERSION},
        {"installed", YesNo(program) + " (" + where + ")"},
        {"service",
         std::string(kServiceName) + " " + Styled(ServiceStateName(state), running ? Style::Good : Style::Bad)},
        {"initialised", YesNo(initialised)},
    };
    for (const PrinterSideState& side : sides)
        table.rows.push_back({"printer side", Printable(ToUtf8(side.printer)) + ", " + SideText(side)});
    const auto* scopeText = std::find_if(std::begin(kScopes), std::end(kScopes),
                                         [&](const ScopeText& candidate) { return scope == candidate.name; });
    if (scopeText != std::end(kScopes)) {
        table.rows.push_back({"scope", scopeText->text});
        table.rows.push_back({"state directory", DirectoryText(StateDirectoryName())});
        table.rows.push_back({"run directory", DirectoryText(RunDirectoryName())});
    }
    table.rows.push_back({"system version", SystemVersion()});
    table.rows.push_back({"code page", std::to_string(GetACP())});
    table.Print(false);
    if (!fine) PrintLine(HowToStart());
    return fine ? Exit::Done : Exit::NoService;
}

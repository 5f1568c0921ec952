// State: the printers and their conditions, and which notifications are shown.
#include "alerts.h"

#include "conditions.h"
#include "desktop_module.h"

#include "product/guards.h"
#include "product/meanings.h"
#include "product/program_client.h"
#include "product/published_values.h"
#include "product/registry_names.h"
#include "product/variable_names.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr DWORD kListMs = 6000;      // between looks at the list of printers and the settings
constexpr DWORD kRetryMs = 30000;    // after nobody showed a notification
constexpr DWORD kSettingMax = 65536; // bytes
constexpr char kAlertsKey[] = "Alerts";

// What says that a printer needs somebody. All have at most this many bytes.
constexpr const char* kWatched[] = {names::kPrinterStatus,     names::kPrinterStatus2,    names::kErrPaperJam,
                                    names::kErrCoverOpen,      names::kErrNoPaper,        names::kErrPaperState,
                                    names::kErrPaperSizeError, names::kErrFormRegistError};
constexpr DWORD kWatchedMax = 12;

struct WatchedPrinter {
    std::string name; // UTF-8
    DatabaseHandle database = 0;
    const BYTE* view = nullptr; // of the published values; null: none
    product::PublishedSection section{};
    Conditions conditions;
    uint32_t notification = 0;
};

std::string ToUtf8(std::string_view ansi) {
    std::vector<WCHAR> wide(ansi.size() + 1);
    std::string text(4 * wide.size(), '\0');
    const int length = MultiByteToWideChar(CP_ACP, 0, ansi.data(), static_cast<int>(ansi.size()), wide.data(),
                                           static_cast<int>(wide.size()));
    text.resize(static_cast<SIZE_T>(std::max(0, WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, text.data(),
                                                                    static_cast<int>(text.size()), nullptr, nullptr))));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; }, '?');
    return text;
}

// Of any type of text; its NULs included. Empty when there is none.
std::string ReadSetting(const RegistryKey& key, const char* name) {
    DWORD size = 0;
    std::string text;
    if (!key || RegQueryValueExA(key.Get(), name, nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS ||
        size > kSettingMax)
        return text;
    text.resize(size);
    if (RegQueryValueExA(key.Get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(text.data()), &size) !=
        ERROR_SUCCESS)
        size = 0;
    text.resize(std::min<SIZE_T>(size, text.size()));
    return text;
}

struct Settings {
    bool any = true;
    product::Severity lowest = product::Severity::Error;
    std::vector<std::string> ignored; // ANSI
};

Settings ReadSettings() {
    Settings settings;
    HKEY opened = nullptr;
    const std::string path = std::string(kProductKey) + "\\" + kAlertsKey;
    const RegistryKey key(
        RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &opened) == ERROR_SUCCESS ? opened : nullptr);
    const std::string lowest = ReadSetting(key, "LowestSeverity").c_str(); // up to its NUL
    settings.any = lstrcmpiA(lowest.c_str(), NameOf(product::Severity::None)) != 0;
    for (const product::Severity severity : {product::Severity::Info, product::Severity::Warning})
        if (lstrcmpiA(lowest.c_str(), NameOf(severity)) == 0) settings.lowest = severity;
    const std::string list = ReadSetting(key, "Ignore");
    for (SIZE_T at = 0; at < list.size(); at += settings.ignored.back().size() + 1)
        settings.ignored.emplace_back(list.c_str() + at);
    return settings;
}

bool Ignores(const Settings& settings, const char* text) {
    return std::any_of(settings.ignored.begin(), settings.ignored.end(),
                       [&](const std::string& entry) { return lstrcmpiA(entry.c_str(), text) == 0; });
}

// ---- values

void Unmap(WatchedPrinter& printer) {
    if (printer.view != nullptr) UnmapViewOfFile(printer.view);
    printer.view = nullptr;
}

void Map(WatchedPrinter& printer) {
    Unmap(printer);
    PublishedPlace place;
    if (FindPublishedValues(printer.database, &place) != Answer::Done || place.size == 0) return;
    const KernelHandle section(OpenFileMappingA(FILE_MAP_READ, FALSE, place.section.text));
    if (section) printer.view = static_cast<const BYTE*>(MapViewOfFile(section.Get(), FILE_MAP_READ, 0, 0, place.size));
    printer.section = {printer.view, place.size};
}

// The size; 0: the value is not to be had now.
DWORD ReadWatched(WatchedPrinter& printer, const char* variable, BYTE (&value)[kWatchedMax]) {
    product::PublishedState state;
    if (printer.view != nullptr) {
        const product::PublishedRead read = ReadPublished(printer.section, variable, value, sizeof value, &state);
        if (read == product::PublishedRead::Done) return state.size;
        if (read == product::PublishedRead::TooSmall) return 0; // a model's, of another type
        Map(printer);                                           // its section may have been replaced
    }
    DWORD size = 0;
    return ReadVariable(printer.database, variable, value, sizeof value, &size) == Answer::Done ? size : 0;
}

} // namespace

struct Alerts {
    const desktop::Module* module = nullptr;
    product::ServiceInstance instance{};            // that the databases are open in
    std::map<std::string, WatchedPrinter> printers; // by database
    Settings settings;
    bool listed = false; // at lastList
    DWORD lastList = 0;
    bool nobodyShows = false; // since lastShow
    DWORD lastShow = 0;
};

namespace {

void Forget(Alerts& alerts, WatchedPrinter& printer) {
    if (printer.notification != 0) alerts.module->close(printer.notification);
    Unmap(printer);
    CloseDatabase(printer.database);
}

void UpdatePrinters(Alerts& alerts) {
    std::vector<std::string> databases;
    if (ListPrinterDatabases(&databases) != Answer::Done) return;
    for (auto row = alerts.printers.begin(); row != alerts.printers.end();) {
        const bool there = std::find(databases.begin(), databases.end(), row->first) != databases.end();
        if (!there) Forget(alerts, row->second);
        row = there ? std::next(row) : alerts.printers.erase(row);
    }
    for (const std::string& database : databases) {
        WatchedPrinter& printer = alerts.printers[database];
        if (printer.database == 0) {
            if (OpenDatabase(database.c_str(), &printer.database) != Answer::Done) continue;
            Map(printer);
        }
        std::vector<BYTE> name; // it may be renamed
        if (ReadWholeValue(printer.database, names::kPrinterName, &name) == Answer::Done && !name.empty())
            printer.name = std::string(name.begin(), std::find(name.begin(), name.end(), BYTE{0}));
    }
}

void See(WatchedPrinter& printer, const Settings& settings, DWORD now) {
    for (const char* variable : kWatched) {
        BYTE value[kWatchedMax];
        const DWORD size = ReadWatched(printer, variable, value);
        for (const product::Named& named : product::NamedParts(*product::MeaningOf(variable), value, size)) {
            if (*named.words == '\0' || named.severity < settings.lowest || Ignores(settings, named.words)) continue;
            SeeCondition(printer.conditions, named, now);
        }
    }
}

// False when nobody shows it.
bool Show(Alerts& alerts, WatchedPrinter& printer, DWORD now) {
    desktop::Notification notification{.title = ToUtf8(printer.name), .replaces = printer.notification};
    std::vector<Condition*> told;
    for (auto& [words, condition] : printer.conditions) {
        if (!HasLasted(condition, now)) continue;
        notification.body += (notification.body.empty() ? "" : ", ") + words;
        if (condition.severity == product::Severity::Error) notification.urgency = desktop::Urgency::Critical;
        told.push_back(&condition);
    }
    const uint32_t number = alerts.module->show(notification);
    if (number == 0) return false;
    printer.notification = number;
    for (Condition* condition : told)
        condition->shown = true;
    return true;
}

} // namespace

Alerts* StartAlerts() {
    const HMODULE library = LoadLibraryExA(desktop::kModuleName, nullptr, LOAD_LIBRARY_SEARCH_APPLICATION_DIR);
    if (!library) return nullptr;
    // By way of a plain pointer, because FARPROC has another type.
    const auto entry =
        reinterpret_cast<desktop::ModuleEntry>(reinterpret_cast<void*>(GetProcAddress(library, desktop::kModuleEntry)));
    const desktop::Module* module = entry ? entry() : nullptr;
    return module && module->size == sizeof *module ? new Alerts{.module = module} : nullptr;
}

void LookForAlerts(Alerts& alerts) {
    const DWORD now = GetTickCount();
    product::ServiceInstance instance;
    if (GetServiceInstance(&instance) != Answer::Done) return; // what is shown stays
    if (instance != alerts.instance) {
        // Databases of the service before this one are closed.
        for (auto& [name, printer] : alerts.printers) {
            Unmap(printer);
            printer.database = 0;
        }
        alerts.instance = instance;
        alerts.listed = false;
    }
    if (!alerts.listed || now - alerts.lastList >= kListMs) {
        alerts.settings = ReadSettings();
        UpdatePrinters(alerts);
        alerts.listed = true;
        alerts.lastList = now;
    }
    for (auto& [name, printer] : alerts.printers) {
        if (printer.database == 0) continue;
        if (alerts.settings.any && !Ignores(alerts.settings, printer.name.c_str())) See(printer, alerts.settings, now);
        if (SettleConditions(printer.conditions, now) && (!alerts.nobodyShows || now - alerts.lastShow >= kRetryMs)) {
            alerts.nobodyShows = !Show(alerts, printer, now);
            alerts.lastShow = now;
        }
        if (printer.conditions.empty() && printer.notification != 0)
            alerts.module->close(std::exchange(printer.notification, 0));
    }
}

void EndAlerts(Alerts* alerts) {
    if (alerts == nullptr) return;
    for (auto& [name, printer] : alerts->printers)
        Forget(*alerts, printer);
    delete alerts;
}

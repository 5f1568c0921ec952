// The sweep over the published sections of this machine's printers.
//   1 one variable   2 one printer   3 the list of printers   4 the service   5 the source
// State: the object's.
#include "model/local.h"


#include "base/catalogue.h"
#include "base/device_state.h"
#include "base/jobs.h"
#include "base/presentation.h"
#include "base/printers.h"
#include "base/registry.h"
#include "base/service_client.h"

#include "product/file_times.h"
#include "product/printer_list.h"
#include "product/published_mapping.h"
#include "product/variable_names.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>

namespace views {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kBusySweep = 50ms;
constexpr auto kIdleSweep = 100ms;  // a change is seen soon enough for a page that promises 200 ms
constexpr auto kBusyFor = 10s;      // after a change
constexpr auto kLook = 1s;          // between looks at the service, the printer list, and values that are not published
constexpr auto kInstalledLook = 2s; // whether the printers are still there: a look at the registry for each
constexpr auto kAbsentLook = 10s;   // for a variable that the database does not have
constexpr auto kSpoolerLook = 30s;  // for printers that only the spooler knows; it may be a print server
constexpr DWORD kAnswerMs = 5000;   // a service that was stopped must not block a view for longer
constexpr int64_t kTicksPerMs = 10000;             // of FILETIME
constexpr int64_t kUnixEpochMs = 11644473600000LL; // 1970 after 1601

constexpr char kNoService[] = "the status database service does not run";
constexpr char kNoDatabase[] = "its database is not there yet";

constexpr const char* kPerReader[] = {names::kPrintingMyJob, names::kSpoolingMyJob, names::kUserAuthority};

int64_t UnixMs(ULONGLONG time) {
    return time == 0 ? 0 : static_cast<int64_t>(time / kTicksPerMs) - kUnixEpochMs;
}

bool IsShown(const Variable& variable) {
    return variable.readable && variable.type != SVT_QUEUE &&
           std::none_of(std::begin(kPerReader), std::end(kPerReader),
                        [&](const char* name) { return variable.name == name; });
}

// ---- 1 one variable

// What was last seen of a variable's value.
struct Seen {
    bool known = false;
    bool published = false; // by its counts in the section; else by the service's answer
    ULONGLONG writes = 0;
    ULONGLONG changes = 0;
};

struct Watched {
    std::string name;                   // as it is stored
    std::string shownName;              // key in Printer::values
    const Variable* variable = nullptr; // null: the state of the device
    Seen seen{};
    Clock::time_point askDue{}; // for a value that is not published
};

// The stored value in the form in which the library gives it.
Bytes Given(const Variable& variable, Bytes stored) {
    switch (variable.type) {
    case SVT_VARIABLE:
        stored.erase(stored.begin(), stored.begin() + std::min<ptrdiff_t>(4, std::ssize(stored)));
        return stored;
    case SVT_STRING: {
        const auto end = std::find(stored.begin(), stored.end(), 0);
        stored.erase(end == stored.end() ? end : end + 1, stored.end());
        return stored;
    }
    default:
        if (variable.size != 0) stored.resize(variable.size);
        return stored;
    }
}

struct StoredValue {
    Bytes bytes;
    Seen seen;
    ULONGLONG writeTime = 0;
};

// ---- 2 one printer

struct Followed {
    std::string databaseName;
    std::string listedDriver; // of the printer list; empty: not known there
    std::string driver;
    std::shared_ptr<const std::vector<Variable>> variables{};
    std::vector<Watched> watched{};

    DatabaseHandle database = 0; // 0: not open
    Clock::time_point openDue{};
    product::PublishedValues published{};
    bool asks = true; // a value is not published
    Clock::time_point askDue{};
    std::optional<DeviceRecord> device{};
    Printer fresh{};          // until it has values
    Printer* shown = nullptr; // of State::now; null: it has none yet

    Printer& Shown() { return shown != nullptr ? *shown : fresh; }
};

std::vector<Watched> AllOf(const std::vector<Variable>& variables) {
    std::vector<Watched> all;
    for (const Variable& variable : variables)
        if (IsShown(variable))
            all.push_back(
                {.name = variable.name, .shownName = Printable(ToUtf8(variable.name)), .variable = &variable});
    all.push_back({.name = kDeviceVariable});
    return all;
}

// Without a section the values are asked for.
void FindSection(Followed& printer) {
    PublishedPlace place;
    printer.published.Unmap();
    printer.asks = FindPublishedValues(printer.database, &place) != Answer::Done || !printer.published.Map(place);
}

// False: the database is not there, or not ready.
bool Open(Followed& printer) {
    if (OpenDatabase(printer.databaseName.c_str(), &printer.database) != Answer::Done) return false;
    FindSection(printer);
    return true;
}

// The binding has ended, and the handle with it.
void Forget(Followed& printer) {
    printer.published.Unmap();
    printer.database = 0;
    printer.openDue = printer.askDue = {};
    printer.device.reset();
    printer.variables.reset(); // the model may be registered anew meanwhile
    printer.watched.clear();
}

// Nothing: the value is as it was, cannot be had, or is not due.
std::optional<StoredValue> AskFor(Followed& printer, Watched& watched, Clock::time_point now) {
    printer.asks = true;
    if (now < watched.askDue) return std::nullopt;
    watched.askDue = now + kLook;
    product::VariableInfo info{};
    const Answer answer = GetVariableInfo(printer.database, watched.name.c_str(), &info);
    if (answer == Answer::UnknownVariable) watched.askDue = now + kAbsentLook;
    if (answer != Answer::Done || (watched.seen.known && !watched.seen.published && watched.seen.writes == info.writes))
        return std::nullopt;
    StoredValue value{.seen = {.known = true, .writes = info.writes}, .writeTime = product::ToTime(info.writeTime)};
    if (ReadWholeValue(printer.database, watched.name.c_str(), &value.bytes) != Answer::Done) return std::nullopt;
    return value;
}

// The same.
std::optional<StoredValue> ReadIfWritten(Followed& printer, Watched& watched, Clock::time_point now) {
    static thread_local Bytes buffer(product::kPublishedValueMax);
    if (!printer.published.IsMapped()) return AskFor(printer, watched, now);
    product::PublishedState state{};
    if (product::ReadPublished(printer.published.Section(), watched.name, buffer.data(),
                               static_cast<DWORD>(buffer.size()), &state) != product::PublishedRead::Done)
        return AskFor(printer, watched, now);
    if (watched.seen.known && watched.seen.published && watched.seen.writes == state.writes) return std::nullopt;
    return StoredValue{.bytes = Bytes(buffer.begin(), buffer.begin() + state.size),
                       .seen = {true, true, state.writes, state.changes},
                       .writeTime = state.writeTime};
}

// How often other bytes were written, as far as it can be told.
uint64_t ChangesBetween(const Seen& before, const Seen& after, bool sameBytes) {
    if (!before.published || !after.published) return sameBytes ? 0 : 1;
    return static_cast<DWORD>(after.changes - before.changes);
}

void Describe(Value& value, const Followed& printer, const Variable& variable, Bytes bytes) {
    const Decoded decoded = Decode(*printer.variables, variable, bytes);
    const Provenance provenance = ProvenanceOf(variable, bytes, std::nullopt, std::nullopt);
    value.json = ToJson(decoded);
    value.text = OneLine(decoded);
    value.meaning = provenance.meaning.words;
    value.severity = provenance.meaning.severity;
    value.origin = provenance.from;
    value.bytes = std::move(bytes);
}

void Take(Followed& printer, Watched& watched, StoredValue stored, std::vector<Change>& changes) {
    const Seen before = std::exchange(watched.seen, stored.seen);
    Printer& shown = printer.Shown();
    if (watched.variable == nullptr) {
        printer.device = ParseDeviceRecord(stored.bytes);
        shown.device = printer.device ? AddressOf(*printer.device) : "";
        shown.answeredMs = printer.device ? UnixMs(printer.device->answeredAt) : 0;
        return;
    }
    Bytes bytes = Given(*watched.variable, std::move(stored.bytes));
    const auto [place, isNew] = shown.values.try_emplace(watched.shownName);
    Value& value = place->second;
    const bool same = !isNew && value.bytes == bytes;
    const uint64_t count = isNew ? 1 : ChangesBetween(before, stored.seen, same);
    const std::optional<Value> old = count != 0 && !isNew ? std::optional(value) : std::nullopt;
    if (!same) Describe(value, printer, *watched.variable, std::move(bytes));
    value.writes = product::WriteCount(stored.seen.writes);
    value.writtenMs = UnixMs(stored.writeTime);
    if (count == 0 || printer.shown == nullptr) return;
    // The count of a composite is the sum of its members'.
    const bool composite = watched.variable->type == SVT_COMPOSITE;
    changes.push_back({.kind = ChangeKind::Value,
                       .atMs = value.writtenMs,
                       .machine = shown.machine,
                       .printer = shown.name,
                       .variable = watched.shownName,
                       .before = old,
                       .after = value,
                       .missed = composite ? 0 : count - 1});
}

// Reads what was written since the last time.
void ReadNew(Followed& printer, Clock::time_point now, std::vector<Change>& changes) {
    if (printer.published.IsMapped() && !printer.published.IsCurrent()) FindSection(printer);
    const bool asks = printer.asks && now >= printer.askDue;
    if (asks) {
        printer.askDue = now + kLook;
        if (!printer.published.IsMapped()) FindSection(printer);
    }
    // The counts are taken before the values, so a later write is seen the next time.
    const bool written = printer.published.IsMapped() && printer.published.HaveChanged();
    if (!asks && !written) return;
    printer.asks = !printer.published.IsMapped();
    for (Watched& watched : printer.watched)
        if (std::optional<StoredValue> value = ReadIfWritten(printer, watched, now))
            Take(printer, watched, std::move(*value), changes);
}

} // namespace

struct LocalPrinters::State {
    std::string machine = MachineName();
    ServiceBinding binding{};
    std::map<std::string, Followed> followed{}; // by name, ANSI
    Printers now{};
    std::map<std::string, std::shared_ptr<const std::vector<Variable>>> variablesOf{}; // by driver

    bool connected = false;
    bool wasConnected = false;
    bool told = false; // whether the service is there
    Clock::time_point connectDue{};
    DatabaseHandle master = 0;
    std::vector<BYTE> list{}; // of printers, as it is stored
    DWORD listWrites = 0;
    Clock::time_point listDue{};
    Clock::time_point installedDue{};
    Clock::time_point spoolerDue{};
    std::set<std::string> inSpooler{};

    Clock::time_point sweepDue{};
    Clock::time_point busyUntil{};
    std::mutex mutex{}; // of what follows
    std::condition_variable wake{};
    bool woken = false;

    Change ChangeOf(ChangeKind kind, const std::string& printer = {}) const {
        return {.kind = kind, .atMs = NowMs(), .machine = machine, .printer = printer};
    }

    void GiveVariables(Followed& printer);
    void Judge(Followed& printer, std::vector<Change>& changes) const;
    void LookAt(Followed& printer, Clock::time_point time, std::vector<Change>& changes);

    bool ReadList();
    bool IsInstalled(const std::string& printer, Clock::time_point time);
    void Follow(const product::ListedPrinter& listed);
    bool RefreshPrinters(Clock::time_point time, std::vector<Change>& changes);

    void Bind();
    bool ServiceLives() const;
    bool Connect(std::vector<Change>& changes);
    void Disconnect(std::vector<Change>& changes);

    void Sweep(std::vector<Change>& changes);
};

void LocalPrinters::State::GiveVariables(Followed& printer) {
    std::shared_ptr<const std::vector<Variable>>& variables = variablesOf[printer.driver];
    if (!variables) variables = std::make_shared<const std::vector<Variable>>(PrinterVariables(printer.driver));
    printer.variables = variables;
    printer.watched = AllOf(*variables);
    std::erase_if(printer.Shown().values, [&](const auto& value) {
        return std::none_of(printer.watched.begin(), printer.watched.end(),
                            [&](const Watched& watched) { return watched.shownName == value.first; });
    });
}

// Whether the values are still sure.
void LocalPrinters::State::Judge(Followed& printer, std::vector<Change>& changes) const {
    std::string trouble;
    if (printer.database == 0)
        trouble = kNoDatabase;
    else if (printer.device)
        trouble = TroubleOf(*printer.device);
    Printer& shown = printer.Shown();
    if (shown.trouble == trouble) return;
    shown.stale = !trouble.empty();
    shown.trouble = trouble;
    if (printer.shown != nullptr)
        changes.push_back(ChangeOf(shown.stale ? ChangeKind::Stale : ChangeKind::Fresh, shown.name));
}

void LocalPrinters::State::LookAt(Followed& printer, Clock::time_point time, std::vector<Change>& changes) {
    if (!printer.variables) GiveVariables(printer);
    if (printer.database == 0 && time >= printer.openDue && !Open(printer)) printer.openDue = time + kLook;
    if (printer.database != 0) ReadNew(printer, time, changes);
    Judge(printer, changes);
    if (printer.shown != nullptr || printer.fresh.values.empty()) return;
    printer.shown = &(now[{machine, printer.fresh.name}] = std::move(printer.fresh));
    changes.push_back(ChangeOf(ChangeKind::PrinterAdded, printer.shown->name));
}

// ---- 3 the list of printers

// False: the service does not answer, or is another one.
bool LocalPrinters::State::ReadList() {
    if (master == 0) {
        const Answer answer = OpenDatabase(product::kMasterDatabase, &master);
        if (answer != Answer::Done) return answer == Answer::UnknownDatabase || answer == Answer::BeingInitialised;
    }
    DWORD writes = 0;
    const Answer answer = GetWriteCount(master, product::kPrinterListVariable, &writes);
    if (answer != Answer::Done) return answer == Answer::UnknownVariable || answer == Answer::BeingInitialised;
    if (writes == listWrites && !list.empty()) return true;
    listWrites = writes;
    installedDue = {};
    return ReadWholeValue(master, product::kPrinterListVariable, &list) == Answer::Done;
}

// A printer that was removed keeps its database and its place in the list until the service ends.
bool LocalPrinters::State::IsInstalled(const std::string& printer, Clock::time_point time) {
    if (OpenKey(HKEY_LOCAL_MACHINE, PrinterKeyPath(printer), KEY_QUERY_VALUE)) return true;
    if (time >= spoolerDue) {
        inSpooler.clear();
        for (const ::Printer& each : ListPrinters())
            inSpooler.insert(each.name);
        spoolerDue = time + kSpoolerLook;
    }
    return inSpooler.contains(printer);
}

void LocalPrinters::State::Follow(const product::ListedPrinter& listed) {
    const std::string name(listed.name);
    const std::string shownName = Printable(ToUtf8(name));
    std::string driver(listed.driver);
    if (driver.empty()) driver = DriverOf(name).value_or("");
    Followed& printer = followed[name];
    printer.databaseName = listed.database;
    printer.listedDriver = listed.driver;
    printer.driver = driver;
    printer.fresh = {.machine = machine, .name = shownName, .driver = Printable(ToUtf8(driver))};
}

// False: the service does not answer, or is another one.
bool LocalPrinters::State::RefreshPrinters(Clock::time_point time, std::vector<Change>& changes) {
    listDue = time + kLook;
    if (!ReadList()) return false;
    if (time < installedDue) return true;
    installedDue = time + kInstalledLook;
    std::set<std::string> gone;
    for (const auto& [name, printer] : followed)
        gone.insert(name);
    for (SIZE_T i = 0; i < product::CountPrinterList(list.data(), list.size()); ++i) {
        const product::ListedPrinter listed = product::PrinterInList(list.data(), i);
        const std::string name(listed.name);
        if (!IsInstalled(name, time)) continue;
        const auto known = followed.find(name);
        if (known == followed.end())
            Follow(listed);
        else if (known->second.databaseName != listed.database || known->second.listedDriver != listed.driver)
            continue; // it goes, and comes back at the next look
        gone.erase(name);
    }
    for (const std::string& name : gone) {
        const auto place = followed.find(name);
        if (place->second.database != 0) CloseDatabase(place->second.database);
        if (place->second.shown != nullptr) {
            const std::string shown = place->second.shown->name;
            now.erase({machine, shown});
            changes.push_back(ChangeOf(ChangeKind::PrinterRemoved, shown));
        }
        followed.erase(place);
        installedDue = spoolerDue = {}; // it may come back at once with another database
    }
    return true;
}

// ---- 4 the service

void LocalPrinters::State::Bind() {
    if (!BindStatusDatabase())
        throw StatusFailure(static_cast<int32_t>(Answer::InvalidBinding), "cannot bind to the status database service");
    LimitAnswers(kAnswerMs);
}

// One record of the service's life is in all sections.
bool LocalPrinters::State::ServiceLives() const {
    const auto mapped = std::find_if(followed.begin(), followed.end(),
                                     [](const auto& each) { return each.second.published.IsMapped(); });
    return mapped == followed.end() || mapped->second.published.ServiceLives();
}

bool LocalPrinters::State::Connect(std::vector<Change>& changes) {
    product::ServiceInstance instance = 0;
    if (GetServiceInstance(&instance) != Answer::Done) return false;
    changes.push_back(ChangeOf(ChangeKind::Connected));
    if (wasConnected) changes.push_back(ChangeOf(ChangeKind::Gap));
    connected = wasConnected = true;
    return true;
}

void LocalPrinters::State::Disconnect(std::vector<Change>& changes) {
    // Ends the handles too, without a call for each, which a service that hangs would not answer.
    UnbindStatusDatabase();
    Bind();
    connected = false;
    master = 0;
    list.clear();
    listDue = installedDue = spoolerDue = {};
    variablesOf.clear();
    for (auto& [name, printer] : followed) {
        Forget(printer);
        printer.Shown().stale = true;
        printer.Shown().trouble = kNoService;
    }
    changes.push_back(ChangeOf(ChangeKind::Disconnected));
}

// ---- 5 the source

void LocalPrinters::State::Sweep(std::vector<Change>& changes) {
    const Clock::time_point time = Clock::now();
    if (!connected) {
        if (time < connectDue) return;
        connectDue = time + kLook;
        const bool there = Connect(changes);
        if (!there && !told) changes.push_back(ChangeOf(ChangeKind::Disconnected));
        told = true;
        if (!there) return;
    }
    if (!ServiceLives() || (time >= listDue && !RefreshPrinters(time, changes))) {
        Disconnect(changes);
        return;
    }
    const size_t first = changes.size();
    for (auto& [name, printer] : followed)
        LookAt(printer, time, changes);
    // Write times have milliseconds. Within one the order is not known.
    std::stable_sort(changes.begin() + static_cast<ptrdiff_t>(first), changes.end(),
                     [](const Change& a, const Change& b) { return a.atMs < b.atMs; });
}

LocalPrinters::LocalPrinters() : m_state(std::make_unique<State>()) {
    m_state->Bind();
}

LocalPrinters::~LocalPrinters() = default;

std::vector<Change> LocalPrinters::Wait(std::chrono::milliseconds most) {
    State& state = *m_state;
    const Clock::time_point end = Clock::now() + most;
    std::vector<Change> changes;
    for (;;) {
        const Clock::time_point time = Clock::now();
        if (time >= state.sweepDue) {
            state.Sweep(changes);
            if (!changes.empty()) state.busyUntil = time + kBusyFor;
            state.sweepDue = time + (time < state.busyUntil ? kBusySweep : kIdleSweep);
        }
        std::unique_lock lock(state.mutex);
        if (!changes.empty() || state.woken || Clock::now() >= end) {
            state.woken = false;
            return changes;
        }
        state.wake.wait_until(lock, std::min(end, state.sweepDue), [&] { return state.woken; });
    }
}

void LocalPrinters::Wake() {
    {
        const std::lock_guard lock(m_state->mutex);
        m_state->woken = true;
    }
    m_state->wake.notify_all();
}

const Printers& LocalPrinters::Now() const {
    return m_state->now;
}

void LocalPrinters::PauseJob(const Printer& printer, bool pause) {
    PauseSentJob(OpenPrinterOf({.printer = printer.name}), pause);
}

void LocalPrinters::CancelJob(const Printer& printer, uint32_t job) {
    ::CancelJob(OpenPrinterOf({.printer = printer.name}), job);
}

int64_t NowMs() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return UnixMs(product::ToTime(now));
}

std::string MachineName() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return Printable(ToUtf8(name));
}

} // namespace views

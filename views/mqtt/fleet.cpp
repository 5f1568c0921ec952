// State: the object's.
#include "mqtt/fleet.h"

#include "base/text.h"
#include "model/local.h"
#include "mqtt/messages.h"
#include "mqtt/topics.h"

#include <condition_variable>
#include <deque>
#include <iterator>
#include <mutex>

namespace views {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr size_t kMachinesMax = 1000;
constexpr size_t kPrintersMax = 20000;   // of all machines
constexpr size_t kVariablesMax = 500;    // of one printer
constexpr size_t kKeptMax = 512 << 20;   // bytes of documents of all values
constexpr size_t kWaitingMax = 32 << 20; // bytes of messages; the broker waits while there are more
constexpr auto kForming = 2s;            // until a printer is shown without all the variables that it announced
constexpr auto kQuiet = 300ms;           // after which the broker has told what it has

constexpr const char* kFilters[] = {"/+/available", "/+/printers/+/about", "/+/printers/+/values/+"};
constexpr char kNoBroker[] = "there is no connection to the broker";
constexpr char kOfflineTrouble[] = "its machine is not connected to the broker";

struct Arrived {
    std::string topic;
    std::string payload;
};

struct Machine {
    bool online = false;
    bool told = false; // whether it is online
};

// What is known of a printer beside what is shown.
struct Told {
    Printer printer;         // with its values, while it is not shown
    bool stale = false;      // as its machine told
    std::string trouble;     // the same
    bool about = false;      // its document has come
    size_t variables = 0;    // that it has
    Clock::time_point since; // when it was first told of
    bool shown = false;
    std::map<std::string, size_t> sizes; // of the documents of its values
};

using Key = std::pair<std::string, std::string>;

bool IsSame(const Value& one, const Value& other) {
    return one.json == other.json && one.text == other.text && one.meaning == other.meaning &&
           one.severity == other.severity;
}

} // namespace

struct FleetPrinters::State final : BrokerHandler {
    explicit State(const BrokerOptions& options) : options(options) {}

    // ---- of the connection's thread
    void Connected(BrokerConnection& connection) override {
        {
            const std::lock_guard hold(lock);
            connected = true;
            trouble.clear();
            answers = 0;
        }
        for (const char* filter : kFilters)
            connection.Subscribe(options.prefix + filter);
        arrival.notify_all();
    }
    void Disconnected(const std::string& why) override {
        const std::lock_guard hold(lock);
        connected = false;
        answers = 0;
        trouble = why;
        arrival.notify_all();
    }
    void Subscribed() override {
        const std::lock_guard hold(lock);
        ++answers;
        lastArrival = Clock::now();
    }
    void Received(const std::string& topic, std::string_view payload, bool) override {
        if (payload.size() > kDocumentMax) return;
        std::unique_lock hold(lock);
        taken.wait(hold, [&] { return waitingBytes < kWaitingMax || ending; });
        waitingBytes += topic.size() + payload.size();
        waiting.push_back({topic, std::string(payload)});
        lastArrival = Clock::now();
        arrival.notify_all();
    }
    std::optional<Outgoing> Next() override { return std::nullopt; }
    void Taken(const std::string&) override {}

    // ---- of the thread that waits
    Change ChangeOf(ChangeKind kind, const std::string& machine, const std::string& printer = {}) const {
        return {.kind = kind, .atMs = NowMs(), .machine = machine, .printer = printer};
    }
    void Judge(const Key& key, std::vector<Change>& changes);
    void JudgeAll(const std::string& machine, std::vector<Change>& changes);
    void ShowIfComplete(const Key& key, Told& told, std::vector<Change>& changes);
    void Take(const Arrived& arrived, std::vector<Change>& changes);
    void TakeAvailable(const std::string& machine, const std::string& payload, std::vector<Change>& changes);
    void TakeAbout(const Topic& topic, const std::string& payload, std::vector<Change>& changes);
    void TakeValue(const Topic& topic, const std::string& payload, std::vector<Change>& changes);
    bool HasRoom(const Topic& topic) const;
    bool Charge(Told& known, const std::string& variable, size_t size);
    Told& ToldOf(const Key& key);

    const BrokerOptions options;
    std::map<std::string, Machine> machines;
    std::map<Key, Told> told;
    Printers now;
    size_t kept = 0;     // bytes of documents
    bool linked = false; // what was last told of the connection

    std::mutex lock; // of what follows
    std::condition_variable arrival, taken;
    std::deque<Arrived> waiting;
    size_t waitingBytes = 0;
    size_t answers = 0; // to subscriptions
    Clock::time_point lastArrival{};
    bool connected = false;
    std::string trouble;
    bool woken = false;
    bool ending = false;

    std::unique_ptr<BrokerConnection> connection; // last: its thread uses the others
};

// Whether the values of a printer are sure.
void FleetPrinters::State::Judge(const Key& key, std::vector<Change>& changes) {
    const auto shown = now.find(key);
    if (shown == now.end()) return;
    const Told& known = told.at(key);
    const Machine& machine = machines[key.first];
    const std::string trouble = !linked ? kNoBroker : !machine.online ? kOfflineTrouble : known.trouble;
    const bool stale = !linked || !machine.online || known.stale;
    Printer& printer = shown->second;
    if (printer.stale == stale && printer.trouble == trouble) return;
    printer.stale = stale;
    printer.trouble = trouble;
    changes.push_back(ChangeOf(stale ? ChangeKind::Stale : ChangeKind::Fresh, key.first, key.second));
}

void FleetPrinters::State::JudgeAll(const std::string& machine, std::vector<Change>& changes) {
    for (auto row = told.lower_bound({machine, ""}); row != told.end() && row->first.first == machine; ++row)
        Judge(row->first, changes);
}

bool FleetPrinters::State::HasRoom(const Topic& topic) const {
    if (!machines.contains(topic.machine) && machines.size() >= kMachinesMax) return false;
    return told.contains({topic.machine, topic.printer}) || told.size() < kPrintersMax;
}

// False: there is no room for it.
bool FleetPrinters::State::Charge(Told& known, const std::string& variable, size_t size) {
    const auto found = known.sizes.find(variable);
    const size_t before = found == known.sizes.end() ? 0 : found->second;
    if (found == known.sizes.end() && known.sizes.size() >= kVariablesMax) return false;
    if (kept - before + size > kKeptMax) return false;
    kept += size - before;
    if (size == 0)
        known.sizes.erase(variable);
    else
        known.sizes[variable] = size;
    return true;
}

Told& FleetPrinters::State::ToldOf(const Key& key) {
    machines.try_emplace(key.first);
    const auto [place, isNew] = told.try_emplace(key);
    if (isNew) {
        place->second.since = Clock::now();
        place->second.printer.machine = key.first;
        place->second.printer.name = key.second;
    }
    return place->second;
}

void FleetPrinters::State::ShowIfComplete(const Key& key, Told& known, std::vector<Change>& changes) {
    if (known.shown || !known.about) return;
    if (known.printer.values.size() < known.variables && Clock::now() - known.since < kForming) return;
    known.shown = true;
    now[key] = std::move(known.printer);
    known.printer = {};
    changes.push_back(ChangeOf(ChangeKind::PrinterAdded, key.first, key.second));
    std::vector<Change> judged; // is part of it
    Judge(key, judged);
}

void FleetPrinters::State::TakeAvailable(const std::string& name, const std::string& payload,
                                         std::vector<Change>& changes) {
    if (!machines.contains(name) && machines.size() >= kMachinesMax) return;
    Machine& machine = machines[name];
    const bool online = payload == kOnline;
    if (machine.told && machine.online == online) return;
    machine.told = true;
    machine.online = online;
    changes.push_back(ChangeOf(online ? ChangeKind::Connected : ChangeKind::Disconnected, name));
    JudgeAll(name, changes);
}

void FleetPrinters::State::TakeAbout(const Topic& topic, const std::string& payload, std::vector<Change>& changes) {
    const Key key = {topic.machine, topic.printer};
    if (payload.empty()) { // it was removed
        const auto known = told.find(key);
        if (known == told.end()) return;
        if (known->second.shown) changes.push_back(ChangeOf(ChangeKind::PrinterRemoved, key.first, key.second));
        for (const auto& [variable, size] : known->second.sizes)
            kept -= size;
        now.erase(key);
        told.erase(known);
        return;
    }
    const std::optional<About> about = ParseAbout(payload);
    if (!about || !HasRoom(topic)) return;
    Told& known = ToldOf(key);
    Printer& printer = known.shown ? now[key] : known.printer;
    printer.driver = about->printer.driver;
    printer.device = about->printer.device;
    printer.answeredMs = about->printer.answeredMs;
    known.stale = about->printer.stale;
    known.trouble = about->printer.trouble;
    known.variables = std::min(about->variables, kVariablesMax);
    known.about = true;
    ShowIfComplete(key, known, changes);
    Judge(key, changes);
}

void FleetPrinters::State::TakeValue(const Topic& topic, const std::string& payload, std::vector<Change>& changes) {
    const Key key = {topic.machine, topic.printer};
    if (payload.empty()) {
        const auto known = told.find(key);
        if (known == told.end()) return;
        Charge(known->second, topic.variable, 0);
        (known->second.shown ? now[key] : known->second.printer).values.erase(topic.variable);
        return;
    }
    std::optional<Value> value = ParseValue(payload);
    if (!value || !HasRoom(topic)) return;
    Told& known = ToldOf(key);
    Printer& printer = known.shown ? now[key] : known.printer;
    if (!Charge(known, topic.variable, payload.size())) return;
    const auto found = printer.values.find(topic.variable);
    if (!known.shown) {
        printer.values[topic.variable] = std::move(*value);
        return ShowIfComplete(key, known, changes);
    }
    const std::optional<Value> before =
        found == printer.values.end() ? std::nullopt : std::optional(std::move(found->second));
    Value& present = printer.values[topic.variable];
    present = std::move(*value);
    if (before && IsSame(*before, present)) return;
    const bool follows = before && present.writes > before->writes;
    changes.push_back({.kind = ChangeKind::Value,
                       .atMs = present.writtenMs,
                       .machine = key.first,
                       .printer = key.second,
                       .variable = topic.variable,
                       .before = before,
                       .after = present,
                       .missed = follows ? present.writes - before->writes - 1 : 0});
}

void FleetPrinters::State::Take(const Arrived& arrived, std::vector<Change>& changes) {
    const std::optional<Topic> topic = ParseTopic(options.prefix, arrived.topic);
    if (!topic) return;
    switch (topic->kind) {
    case TopicKind::Available:
        return TakeAvailable(topic->machine, arrived.payload, changes);
    case TopicKind::About:
        return TakeAbout(*topic, arrived.payload, changes);
    case TopicKind::Value:
        return TakeValue(*topic, arrived.payload, changes);
    case TopicKind::Command:
        return;
    }
}

FleetPrinters::FleetPrinters(const BrokerOptions& options) : m_state(std::make_unique<State>(options)) {
    m_state->connection = std::make_unique<BrokerConnection>(options, "", Outgoing{}, *m_state);
}

FleetPrinters::~FleetPrinters() {
    {
        const std::lock_guard hold(m_state->lock);
        m_state->ending = true;
    }
    m_state->taken.notify_all();
}

std::vector<Change> FleetPrinters::Wait(std::chrono::milliseconds most) {
    State& state = *m_state;
    std::vector<Change> changes;
    std::deque<Arrived> arrived;
    bool connected = false;
    {
        std::unique_lock hold(state.lock);
        state.arrival.wait_for(
            hold, most, [&] { return state.woken || !state.waiting.empty() || state.connected != state.linked; });
        state.woken = false;
        arrived.swap(state.waiting);
        state.waitingBytes = 0;
        connected = state.connected;
    }
    state.taken.notify_all();
    if (connected != state.linked) {
        state.linked = connected;
        // What happened in between is not known, but for the last values, which the broker tells now.
        for (const auto& [name, machine] : state.machines) {
            if (connected) changes.push_back(state.ChangeOf(ChangeKind::Gap, name));
            if (machine.online)
                changes.push_back(state.ChangeOf(connected ? ChangeKind::Connected : ChangeKind::Disconnected, name));
            state.JudgeAll(name, changes);
        }
    }
    for (const Arrived& message : arrived)
        state.Take(message, changes);
    for (auto& [key, known] : state.told)
        state.ShowIfComplete(key, known, changes);
    return changes;
}

void FleetPrinters::Wake() {
    const std::lock_guard hold(m_state->lock);
    m_state->woken = true;
    m_state->arrival.notify_all();
}

const Printers& FleetPrinters::Now() const {
    return m_state->now;
}

void FleetPrinters::PauseJob(const Printer& printer, bool pause) {
    throw Failure{Exit::False, std::string("cannot ") + (pause ? "pause" : "resume") + " a job of " + printer.name,
                  "it belongs to the machine " + printer.machine, "do it there"};
}

void FleetPrinters::CancelJob(const Printer& printer, uint32_t) {
    throw Failure{Exit::False, "cannot cancel a job of " + printer.name, "it belongs to the machine " + printer.machine,
                  "do it there"};
}

void FleetPrinters::WaitForAll(std::chrono::milliseconds most) {
    const Clock::time_point end = Clock::now() + most;
    for (;;) {
        Wait(50ms);
        const std::lock_guard hold(m_state->lock);
        if (m_state->answers == std::size(kFilters) && m_state->waiting.empty() &&
            Clock::now() - m_state->lastArrival >= kQuiet)
            return;
        if (Clock::now() >= end) {
            if (m_state->answers == std::size(kFilters)) return; // it tells without end
            throw Failure{Exit::NoService, "cannot reach the broker " + NameOf(m_state->options), m_state->trouble,
                          "check --host and --port, and that it runs"};
        }
    }
}

} // namespace views

// State: the bridge's, for the time of the call.
#include "mqtt/bridge.h"

#include "base/failure.h"
#include "base/layer.h"
#include "base/text.h"
#include "model/program.h"
#include "mqtt/home_assistant.h"
#include "mqtt/messages.h"
#include "mqtt/outbox.h"
#include "mqtt/topics.h"

#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <mutex>

namespace views {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kWait = 1s;
constexpr auto kAgain = 10min;       // everything is sent again, for a broker that lost something
constexpr size_t kCommandMax = 4096; // bytes
constexpr size_t kCommandsMax = 100; // that wait

// Commands run with the rights of this process, so the user has to be the one that was meant, and none of those who may
// do everything. Throws Failure.
void CheckCommandsUser(const std::string& user) {
    const passwd* own = getpwuid(geteuid());
    const std::string name = own != nullptr ? own->pw_name : std::to_string(geteuid());
    if (user != name)
        throw UsageFailure("commands are to be carried out as " + Printable(user) + ", but this process runs as " +
                               name,
                           "run the bridge as that user");
    if (geteuid() == 0)
        throw UsageFailure("commands from a broker are not carried out as root", "run the bridge as a user of its own");
}

struct Waiting {
    std::string printer;
    std::string document;
};

class Bridge final : public BrokerHandler {
public:
    Bridge(Source& source, const BridgeOptions& options)
        : m_source(source), m_options(options), m_topics(options.broker.prefix, options.machine) {}

    void Run();

    // Of the connection's thread.
    void Connected(BrokerConnection& connection) override;
    void Disconnected(const std::string& why) override;
    void Received(const std::string& topic, std::string_view payload, bool retained) override;
    std::optional<Outgoing> Next() override;
    void Taken(const std::string& topic) override { m_outbox.Taken(topic); }

private:
    void Report(const char* event, const std::string& why);
    bool Apply(const Change& change);
    bool PutPrinter(const std::string& name);
    bool PutAbout(const std::string& name);
    void ClearPrinter(const std::string& name);
    void CarryOut(const Waiting& waiting);
    const Printer* Find(const std::string& name) const;

    Source& m_source;
    const BridgeOptions& m_options;
    const MachineTopics m_topics;
    Outbox m_outbox;
    std::atomic<bool> m_known = false; // the printers are: the source was connected

    // Of the connection's thread.
    BrokerConnection* m_connection = nullptr; // null: there is none
    bool m_compared = false;                  // what the broker has, with what there is
    std::string m_lastTrouble;

    std::mutex m_lock;
    std::deque<Waiting> m_commands;
};

void Bridge::Report(const char* event, const std::string& why) {
    Json json = {{"event", event}, {"broker", NameOf(m_options.broker)}};
    if (!why.empty()) json["why"] = why;
    if (g_output.json) return PrintJsonLine(json);
    PrintLine(std::string(event) + (why.empty() ? " to " : " from ") + NameOf(m_options.broker) +
              (why.empty() ? "" : ": " + why));
}

void Bridge::Connected(BrokerConnection& connection) {
    m_lastTrouble.clear();
    m_connection = &connection;
    m_compared = false;
    if (!m_options.commandsAs.empty()) connection.Subscribe(m_topics.AllCommands());
    m_outbox.SendAll();
    Report("connected", "");
}

std::optional<Outgoing> Bridge::Next() {
    if (!m_compared && m_known && m_connection != nullptr) {
        // What this machine told in another run is compared with what there is. The broker answers with all that it
        // has; then the subscription ends, as it would bring back whatever is sent from now on.
        m_compared = true;
        for (const std::string& filter :
             {m_topics.AllAbout(), m_topics.AllValues(), HomeAssistantFilter(m_options.machine)}) {
            m_connection->Subscribe(filter);
            m_connection->Unsubscribe(filter);
        }
    }
    return m_outbox.Next();
}

void Bridge::Disconnected(const std::string& why) {
    m_connection = nullptr;
    if (m_lastTrouble == why) return;
    m_lastTrouble = why;
    Report("disconnected", why);
}

void Bridge::Received(const std::string& topic, std::string_view payload, bool retained) {
    const std::optional<Topic> parsed = ParseTopic(m_options.broker.prefix, topic);
    if (parsed && parsed->kind == TopicKind::Command) {
        // A retained command would be carried out again at each connection.
        if (retained || payload.size() > kCommandMax || m_options.commandsAs.empty()) return;
        {
            const std::lock_guard hold(m_lock);
            if (m_commands.size() < kCommandsMax) m_commands.push_back({parsed->printer, std::string(payload)});
        }
        m_source.Wake();
        return;
    }
    if (retained && !payload.empty()) m_outbox.ClearUnknown(topic);
}

const Printer* Bridge::Find(const std::string& name) const {
    for (const auto& [key, printer] : m_source.Now())
        if (key.second == name) return &printer;
    return nullptr;
}

bool Bridge::PutAbout(const std::string& name) {
    const Printer* printer = Find(name);
    return printer != nullptr && m_outbox.Put(m_topics.About(name), AboutDocument(*printer));
}

bool Bridge::PutPrinter(const std::string& name) {
    const Printer* printer = Find(name);
    if (printer == nullptr) return false;
    bool put = PutAbout(name);
    for (const auto& [variable, value] : printer->values)
        put |= m_outbox.Put(m_topics.Value(name, variable), ValueDocument(value));
    if (m_options.homeAssistant)
        for (Outgoing& document : HomeAssistantDocuments(m_options.machine, m_topics, *printer))
            put |= m_outbox.Put(document.topic, std::move(document.payload));
    return put;
}

void Bridge::ClearPrinter(const std::string& name) {
    m_outbox.ClearIf([&](const std::string& topic) {
        return topic.starts_with(m_topics.Printer(name) + "/") || IsHomeAssistantTopic(topic, m_options.machine, name);
    });
}

bool Bridge::Apply(const Change& change) {
    switch (change.kind) {
    case ChangeKind::Value:
        if (!change.after) return false;
        // The first value of a variable makes one more.
        if (!change.before) PutAbout(change.printer);
        return m_outbox.Put(m_topics.Value(change.printer, change.variable), ValueDocument(*change.after));
    case ChangeKind::PrinterAdded:
        return PutPrinter(change.printer);
    case ChangeKind::PrinterRemoved:
        ClearPrinter(change.printer);
        return true;
    case ChangeKind::Stale:
    case ChangeKind::Fresh:
        return PutAbout(change.printer);
    case ChangeKind::Connected:
        m_known = true;
        [[fallthrough]];
    case ChangeKind::Gap:
    case ChangeKind::Disconnected: {
        bool put = false;
        for (const auto& [key, printer] : m_source.Now())
            put |= PutPrinter(key.second);
        return put || change.kind == ChangeKind::Connected;
    }
    }
    return false;
}

void Bridge::CarryOut(const Waiting& waiting) {
    const std::optional<Command> command = ParseCommand(waiting.document);
    Json answer = {{"id", command ? command->id : Json(nullptr)}, {"done", false}};
    try {
        const Printer* printer = Find(waiting.printer);
        if (!command) throw UsageFailure("this is no command");
        if (printer == nullptr) throw UsageFailure("there is no such printer");
        answer["command"] = command->command;
        answer["job"] = command->job;
        if (command->command == "cancel")
            m_source.CancelJob(*printer, command->job);
        else
            m_source.PauseJob(*printer, command->command == "pause");
        answer["done"] = true;
    } catch (const Failure& failure) {
        answer["error"] = FailureLine(failure);
    }
    m_outbox.Tell(m_topics.Answer(waiting.printer), answer.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void Bridge::Run() {
    // First the printers, so that nothing of them is taken for old.
    for (const Change& change : m_source.Wait(0ms))
        Apply(change);
    m_outbox.Put(m_topics.Available(), kOnline);
    const EndOnInterrupt end(m_source);
    BrokerConnection connection(m_options.broker, "oriel-" + LevelOf(m_options.machine),
                                {.topic = m_topics.Available(), .payload = kOffline}, *this);
    TellSupervisor("READY=1");
    Clock::time_point again = Clock::now() + kAgain;
    while (!end.Asked()) {
        bool put = false;
        for (const Change& change : m_source.Wait(kWait))
            put |= Apply(change);
        std::deque<Waiting> commands;
        {
            const std::lock_guard hold(m_lock);
            commands.swap(m_commands);
        }
        for (const Waiting& waiting : commands)
            CarryOut(waiting);
        if (Clock::now() >= again) {
            m_outbox.SendAll();
            again = Clock::now() + kAgain;
            put = true;
        }
        if (put || !commands.empty()) connection.Ready();
    }
}

} // namespace

Exit RunBridge(Source& source, const BridgeOptions& options) {
    CheckBrokerOptions(options.broker);
    if (!options.commandsAs.empty()) CheckCommandsUser(options.commandsAs);
    Bridge(source, options).Run();
    return Exit::Done;
}

} // namespace views

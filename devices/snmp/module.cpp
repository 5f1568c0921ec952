// The module for printers that are asked by SNMP. They tell nothing of jobs, and take no commands. State: the
// session's.
#include "agent.h"
#include "printer_mib.h"
#include "session.h"

#include <chrono>
#include <memory>
#include <optional>

namespace devices {
namespace {

class SnmpSession : public Session {
public:
    explicit SnmpSession(AgentAddress address) : m_address(std::move(address)) {}

protected:
    Answer Carry(const Question& question) override;
    // A try ends within a second or so by itself.
    void Cut() override {}

private:
    const AgentAddress m_address;
    std::unique_ptr<Agent> m_agent{};
    PrinterMib m_mib{};
};

Answer SnmpSession::Carry(const Question& question) {
    Answer answer;
    const auto fail = [&](Outcome outcome, const std::string& trouble) {
        answer.outcome = outcome;
        answer.trouble = trouble;
        return answer;
    };
    if (question.ask != Ask::Poll) return fail(Outcome::NotSupported, "SNMP has no such request");
    if (!m_agent) {
        // Looks the name up, and of version 3 asks the agent who it is.
        auto agent = std::make_unique<Agent>();
        std::string error;
        if (!agent->Open(m_address, &error)) return fail(Outcome::NoAnswer, error);
        m_agent = std::move(agent);
    }
    m_agent->Begin(std::chrono::steady_clock::now() + std::chrono::milliseconds(question.limitMs),
                   [this] { return IsCut(); });
    bool isPrinter = false;
    if (!m_mib.Read(*m_agent, question.identity, &answer.reading, &isPrinter)) {
        const std::string trouble = m_agent->Trouble();
        const Outcome outcome = m_agent->IsRefused() ? Outcome::Refused : Outcome::NoAnswer;
        m_agent.reset(); // another address, or another boot of the agent
        return fail(outcome, trouble);
    }
    if (!isPrinter) return fail(Outcome::Garbled, m_address.host + " answers SNMP, but is no printer");
    answer.outcome = Outcome::Answered;
    return answer;
}

Session* Open(const Settings& settings, void (*finished)(void*), void* context, std::string* error) {
    AgentAddress address;
    if (!ParseAgentAddress(settings.uri, &address, error)) return nullptr;
    const auto make = [&]() -> std::unique_ptr<Session> { return std::make_unique<SnmpSession>(std::move(address)); };
    return OpenSession(make, finished, context, error);
}

constexpr Module kModule = ModuleOf(Open);

} // namespace
} // namespace devices

extern "C" __attribute__((visibility("default"))) const devices::Module* OrielDeviceModule() {
    return &devices::kModule;
}

// The module for IPP printers (RFC 8011, PWG 5100): a session polls its printer, and carries out what IPP has for jobs.
// State: the session's.
#include "http.h"
#include "message.h"
#include "printer_attributes.h"
#include "session.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>

namespace devices {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kIppVersion = 0x0200;
constexpr int kLeaseSeconds = 3600; // of a subscription, which is not cancelled
constexpr std::chrono::seconds kFullPollEvery{30};
constexpr uint32_t kShortestMs = 100; // that a further request of the same question gets

Outcome OutcomeOf(ipp_status_t status) {
    switch (status) {
    case IPP_STATUS_ERROR_OPERATION_NOT_SUPPORTED:
    case IPP_STATUS_ERROR_ATTRIBUTES_NOT_SETTABLE:
    case IPP_STATUS_ERROR_ATTRIBUTES_OR_VALUES:
        return Outcome::NotSupported;
    default:
        return status <= IPP_STATUS_OK_CONFLICTING ? Outcome::Answered : Outcome::Declined;
    }
}

class IppSession : public Session {
public:
    IppSession(const Address& address, const Settings& settings)
        : m_address(address), m_settings(settings), m_http(address) {}
    bool IsMade() const { return m_http.IsMade(); }

protected:
    Answer Carry(const Question& question) override;
    void Cut() override { m_http.Wake(); }

private:
    Message Request(ipp_op_t operation) const;
    // Null: *answer says why.
    Message Send(const Question& question, ipp_t* request, Answer* answer);
    Message AskAttributes(const Question& question, const char* const* names, int count, Answer* answer);
    bool NeedsIdentity(const Question& question, ipp_t* message);
    void AskIdentity(const Question& question, Answer* answer);
    void AskJobs(const Question& question, ipp_t* message, Answer* answer);
    void Poll(const Question& question, Answer* answer);
    void Subscribe(const Question& question);
    bool IsQuiet(const Question& question, Answer* answer);
    void Command(const Question& question, Answer* answer);
    bool Supports(ipp_op_t operation) const {
        return std::find(m_operations.begin(), m_operations.end(), static_cast<int32_t>(operation)) !=
               m_operations.end();
    }

    const Address m_address;
    const Settings m_settings;
    Http m_http;
    Clock::time_point m_deadline{};
    bool m_identified = false;
    int32_t m_upTime = kNotKnown; // of the last poll
    int32_t m_configTime = kNotKnown;
    bool m_hadJobs = false;
    bool m_mayTellEvents = false;
    int32_t m_subscription = 0; // 0: none
    int32_t m_nextEvent = 1;    // its sequence number
    Clock::time_point m_fullPoll{};
    std::vector<int32_t> m_operations{};
    std::vector<std::string> m_mediaSources{};
};

Message IppSession::Request(ipp_op_t operation) const {
    Message request(ippNewRequest(operation));
    if (request == nullptr) throw std::bad_alloc();
    ippSetVersion(request.get(), kIppVersion >> 8, kIppVersion & 0xFF);
    ippAddString(request.get(), IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, m_address.uri.c_str());
    if (!m_settings.user.empty())
        ippAddString(request.get(), IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", nullptr,
                     m_settings.user.c_str());
    return request;
}

Message IppSession::Send(const Question& question, ipp_t* request, Answer* answer) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - Clock::now()).count();
    const auto limit = static_cast<uint32_t>(std::max<int64_t>(left, kShortestMs));
    Exchange exchange = m_http.Post(Encode(request), question.certificate, limit, [this] { return IsCut(); });
    answer->outcome = exchange.outcome;
    answer->trouble = exchange.trouble;
    answer->certificate = exchange.certificate;
    if (exchange.outcome != Outcome::Answered) return nullptr;
    Message message = Decode(exchange.body);
    if (message == nullptr || ippGetRequestId(message.get()) != ippGetRequestId(request)) {
        answer->outcome = Outcome::Garbled;
        answer->trouble = "the answer is no IPP";
        return nullptr;
    }
    answer->outcome = OutcomeOf(ippGetStatusCode(message.get()));
    if (answer->outcome == Outcome::Answered) return message;
    answer->trouble = std::string("the printer says ") + ippErrorString(ippGetStatusCode(message.get()));
    return nullptr;
}

Message IppSession::AskAttributes(const Question& question, const char* const* names, int count, Answer* answer) {
    const Message request = Request(IPP_OP_GET_PRINTER_ATTRIBUTES);
    ippAddStrings(request.get(), IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", count, nullptr, names);
    Message message = Send(question, request.get(), answer);
    // Whatever else it is, that does not tell its attributes is no printer to watch.
    if (message == nullptr && (answer->outcome == Outcome::NotSupported || answer->outcome == Outcome::Declined)) {
        answer->outcome = Outcome::Garbled;
        answer->trouble += ", at the path " + m_address.path;
    }
    return message;
}

bool IppSession::NeedsIdentity(const Question& question, ipp_t* message) {
    const int32_t upTime = NumberOf(message, "printer-up-time");
    const int32_t configTime = NumberOf(message, "printer-config-change-time");
    const bool anew = !m_identified || question.identity || upTime < m_upTime || configTime != m_configTime;
    m_upTime = upTime;
    m_configTime = configTime;
    return anew;
}

void IppSession::AskIdentity(const Question& question, Answer* answer) {
    Answer own;
    const Message message = AskAttributes(question, kIdentityAttributes, kIdentityAttributeCount, &own);
    if (message == nullptr) return; // asked again at the next poll
    m_operations = NumbersOf(message.get(), "operations-supported");
    m_mediaSources = KeywordsOf(message.get(), "media-source-supported");
    answer->reading.identity = ReadIdentity(message.get());
    m_identified = true;
    const std::vector<std::string> methods = KeywordsOf(message.get(), "notify-pull-method-supported");
    m_mayTellEvents = Supports(IPP_OP_CREATE_PRINTER_SUBSCRIPTIONS) && Supports(IPP_OP_GET_NOTIFICATIONS) &&
                      std::find(methods.begin(), methods.end(), "ippget") != methods.end();
}

// Asks for the events of the printer (RFC 3995), to be fetched (RFC 3996). A printer that declines is polled as others.
void IppSession::Subscribe(const Question& question) {
    constexpr const char* kEvents[] = {"printer-state-changed", "printer-config-changed", "job-created",
                                       "job-state-changed", "job-progress"};
    const Message request = Request(IPP_OP_CREATE_PRINTER_SUBSCRIPTIONS);
    ippAddString(request.get(), IPP_TAG_SUBSCRIPTION, IPP_TAG_KEYWORD, "notify-pull-method", nullptr, "ippget");
    ippAddStrings(request.get(), IPP_TAG_SUBSCRIPTION, IPP_TAG_KEYWORD, "notify-events",
                  static_cast<int>(std::size(kEvents)), nullptr, kEvents);
    ippAddInteger(request.get(), IPP_TAG_SUBSCRIPTION, IPP_TAG_INTEGER, "notify-lease-duration", kLeaseSeconds);
    Answer own;
    const Message message = Send(question, request.get(), &own);
    m_subscription = message != nullptr ? std::max(NumberOf(message.get(), "notify-subscription-id"), 0) : 0;
    m_nextEvent = 1;
    if (m_subscription == 0) m_mayTellEvents = false; // until its identity is read again
}

// Whether nothing happened since the last poll. Now and then it is read all the same.
bool IppSession::IsQuiet(const Question& question, Answer* answer) {
    if (!question.events || m_subscription == 0 || Clock::now() - m_fullPoll > kFullPollEvery) return false;
    const Message request = Request(IPP_OP_GET_NOTIFICATIONS);
    ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_INTEGER, "notify-subscription-ids", m_subscription);
    ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_INTEGER, "notify-sequence-numbers", m_nextEvent);
    ippAddBoolean(request.get(), IPP_TAG_OPERATION, "notify-wait", 0);
    Answer own;
    const Message message = Send(question, request.get(), &own);
    if (message == nullptr) {
        m_subscription = 0; // its lease is over, or the printer was restarted
        return false;
    }
    int32_t last = 0;
    for (ipp_attribute_t* at = ippFindAttribute(message.get(), "notify-sequence-number", IPP_TAG_INTEGER);
         at != nullptr; at = ippFindNextAttribute(message.get(), "notify-sequence-number", IPP_TAG_INTEGER))
        last = std::max(last, ippGetInteger(at, 0));
    if (last >= m_nextEvent && last < INT32_MAX) m_nextEvent = last + 1;
    answer->outcome = Outcome::Answered;
    answer->certificate = own.certificate;
    answer->unchanged = last == 0;
    answer->tellsEvents = true;
    return answer->unchanged;
}

void IppSession::AskJobs(const Question& question, ipp_t* message, Answer* answer) {
    const int32_t queued = NumberOf(message, "queued-job-count");
    answer->reading.jobsKnown = true;
    if (queued == 0 && answer->reading.state != State::Printing && !m_hadJobs) return;
    const Message request = Request(IPP_OP_GET_JOBS);
    ippAddString(request.get(), IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "which-jobs", nullptr, "not-completed");
    ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_INTEGER, "limit", static_cast<int>(kJobsMax));
    ippAddStrings(request.get(), IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", kAskedJobAttributeCount,
                  nullptr, kAskedJobAttributes);
    Answer own;
    const Message jobs = Send(question, request.get(), &own);
    if (jobs != nullptr)
        answer->reading.jobs = ReadJobs(jobs.get());
    else
        answer->reading.jobsKnown = false;
    m_hadJobs = !answer->reading.jobs.empty();
}

void IppSession::Poll(const Question& question, Answer* answer) {
    if (IsQuiet(question, answer)) return;
    const Message message = AskAttributes(question, kChangingAttributes, kChangingAttributeCount, answer);
    if (message == nullptr) return;
    // First, because it tells what the trays are called.
    if (NeedsIdentity(question, message.get())) {
        m_identified = false;
        AskIdentity(question, answer);
    }
    ReadPrinter(message.get(), m_mediaSources, &answer->reading);
    if (question.jobs) AskJobs(question, message.get(), answer);
    m_fullPoll = Clock::now();
    if (question.jobs && m_mayTellEvents && m_subscription == 0) {
        Subscribe(question);
        m_fullPoll = {}; // what happened since the reading has no event: read again soon
    }
    answer->tellsEvents = m_subscription != 0;
}

void IppSession::Command(const Question& question, Answer* answer) {
    ipp_op_t operation = IPP_OP_CUPS_NONE;
    switch (question.ask) {
    case Ask::Poll:
        return;
    case Ask::HoldJob:
        operation = IPP_OP_HOLD_JOB;
        break;
    case Ask::ReleaseJob:
        operation = IPP_OP_RELEASE_JOB;
        break;
    case Ask::CancelJob:
        operation = IPP_OP_CANCEL_JOB;
        break;
    case Ask::Identify:
        operation = IPP_OP_IDENTIFY_PRINTER;
        break;
    case Ask::SetLocation:
        operation = IPP_OP_SET_PRINTER_ATTRIBUTES;
        break;
    }
    if (m_identified && !Supports(operation)) {
        answer->outcome = Outcome::NotSupported;
        answer->trouble = std::string("the printer has no ") + ippOpString(operation);
        return;
    }
    const Message request = Request(operation);
    if (question.job > 0) ippAddInteger(request.get(), IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", question.job);
    if (question.ask == Ask::Identify && !question.text.empty())
        ippAddString(request.get(), IPP_TAG_OPERATION, IPP_TAG_TEXT, "message", nullptr, question.text.c_str());
    if (question.ask == Ask::SetLocation)
        ippAddString(request.get(), IPP_TAG_PRINTER, IPP_TAG_TEXT, "printer-location", nullptr, question.text.c_str());
    Send(question, request.get(), answer);
}

Answer IppSession::Carry(const Question& question) {
    m_deadline = Clock::now() + std::chrono::milliseconds(question.limitMs);
    Answer answer;
    if (question.ask == Ask::Poll)
        Poll(question, &answer);
    else
        Command(question, &answer);
    return answer;
}

Session* Open(const Settings& settings, void (*finished)(void*), void* context, std::string* error) {
    static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    Address address;
    if (!ParseAddress(settings.uri, &address, error)) return nullptr;
    const auto make = [&]() -> std::unique_ptr<Session> {
        auto session = std::make_unique<IppSession>(address, settings);
        if (ready && session->IsMade()) return session;
        *error = "the HTTP client cannot be set up";
        return nullptr;
    };
    return OpenSession(make, finished, context, error);
}

constexpr Module kModule = ModuleOf(Open);

} // namespace
} // namespace devices

extern "C" __attribute__((visibility("default"))) const devices::Module* OrielDeviceModule() {
    return &devices::kModule;
}
